// KELMATRIX randomized residual sweeps
// One parameterised test per family of tests/campaign.cpp, each over seeded cases, each case
// under one of the misalignments 0, 8 and 24 bytes in turn.
//
// KELMATRIX_CAMPAIGN: unset or "ci" 300 cases per family, "long" 12,000, or a number per family.
// KELMATRIX_TEST_SEED: the seed; case k of a family draws from (seed, family, k) alone, and
// KELMATRIX_CAMPAIGN_CASE=k replays it. A family stops at its first failing case.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "campaign.h"
#include "test_util.h"

namespace {

long cases_per_family()
{
    const char* s = std::getenv("KELMATRIX_CAMPAIGN");
    if (!s || !*s || std::strcmp(s, "ci") == 0)
        return 300;
    return std::strcmp(s, "long") == 0 ? 12000 : std::max(1L, std::strtol(s, nullptr, 10));
}

const int kMisalignments[] = {0, 8, 24}; // bytes

class Sweep : public testing::TestWithParam<int> {};

TEST_P(Sweep, RandomProblemsMeetLapackAcceptanceRatios)
{
    const std::uint64_t seed = kt::seed();
    const char* only = std::getenv("KELMATRIX_CAMPAIGN_CASE");
    const long first = only ? std::strtol(only, nullptr, 10) : 0;
    const long end = only ? first + 1 : cases_per_family();
    for (long k = first; k < end && !HasFailure(); ++k) {
        const int misalignment = kMisalignments[k % 3];
        SCOPED_TRACE(testing::Message() << "case " << k << ", misalignment " << misalignment
                                        << " (KELMATRIX_TEST_SEED=" << seed
                                        << " KELMATRIX_CAMPAIGN_CASE=" << k << ")");
        const kt::ScopedMisalignment shift(misalignment); // before any matrix of the case exists
        kt::run_case(GetParam(), seed, k);
    }
}

INSTANTIATE_TEST_SUITE_P(Campaign, Sweep, testing::Range(0, kt::family_count()),
                         [](const testing::TestParamInfo<int>& family) {
                             return std::string(kt::family_name(family.param));
                         });

} // namespace
