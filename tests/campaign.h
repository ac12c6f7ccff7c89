// KELMATRIX randomized residual families (tests)
// The families of random problems that the campaign sweeps and the concurrency test runs.
#ifndef KELMATRIX_TEST_CAMPAIGN_H
#define KELMATRIX_TEST_CAMPAIGN_H

#include <cstdint>
#include <vector>

namespace kt {

int family_count();
const char* family_name(int family);

/// Case k of a family, drawn from (seed, family, k) alone: checks it with gtest assertions
/// (failures carry the case's description) and returns every output in order, return codes
/// and result matrices, for bit comparisons. Leaves the misalignment as it finds it.
std::vector<double> run_case(int family, std::uint64_t seed, long k);

} // namespace kt

#endif
