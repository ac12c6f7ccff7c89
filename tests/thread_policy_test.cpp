// KELMATRIX thread policy tests
// LSMsolver::establish_numthreads and init's thread decision.
//
// This executable defines its own `mkl_set_num_threads`, which the library's calls reach first;
// it counts the calls and forwards them to MKL's. Every case sets the decided count and sets or
// unsets OMP_NUM_THREADS itself.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "interposers.h"
#include "kelmatrix/sparse.h"

namespace {

int g_setter_calls = 0;
int g_setter_last = 0;
const auto mkl_setter = kt::next_definition(&mkl_set_num_threads, "mkl_set_num_threads");

} // namespace

void mkl_set_num_threads(const int* nt)
{
    ++g_setter_calls;
    g_setter_last = *nt;
    mkl_setter(nt);
}

namespace {

// An undecided (-1) or given count, no setter calls yet, OMP_NUM_THREADS set (nullptr: unset).
void start_from(const char* value, int decided = -1)
{
    LSMsolver::mNumThreadsDefault = decided;
    g_setter_calls = g_setter_last = 0;
    if (value)
        setenv("OMP_NUM_THREADS", value, 1);
    else
        unsetenv("OMP_NUM_THREADS");
}

// Each case changes OMP_NUM_THREADS, the decided count and MKL's thread count; all three are
// put back afterwards.
class ThreadPolicy : public testing::Test {
protected:
    void TearDown() override
    {
        LSMsolver::mNumThreadsDefault = saved_default_;
        mkl_setter(&saved_mkl_threads_);
        if (had_variable_)
            setenv("OMP_NUM_THREADS", saved_variable_.c_str(), 1);
        else
            unsetenv("OMP_NUM_THREADS");
    }

private:
    const int saved_default_ = LSMsolver::mNumThreadsDefault;
    const int saved_mkl_threads_ = mkl_get_max_threads();
    const char* const variable_ = std::getenv("OMP_NUM_THREADS");
    const bool had_variable_ = variable_ != nullptr;
    const std::string saved_variable_ = variable_ ? variable_ : "";
};

// Without a request, a decided count stands; before any decision OMP_NUM_THREADS read by atoi
// decides within 1..20 without the setter (OpenMP reads the variable itself), and 1 outside that
// range; only an unset variable gives 1 through the setter. init decides the same way, and the
// decision is kept without reading the variable again.
TEST_F(ThreadPolicy, EnvironmentDecidesOnceWithinOneToTwenty)
{
    int ia[2] = {1, 2}, ja[1] = {1};
    double a[1] = {4.0};
    const struct {
        const char* value;
        int decided, want, setter_calls, given; // given: the setter's argument, 0 if not called
    } cases[] = {{"8", -1, 8, 0, 0},  {"20", -1, 20, 0, 0}, {"21", -1, 1, 0, 0},
                 {"0", -1, 1, 0, 0},  {"4x", -1, 4, 0, 0},  {nullptr, -1, 1, 1, 1},
                 {"8", 64, 64, 0, 0}, {nullptr, 3, 3, 0, 0}};
    for (const auto& c : cases)
        for (bool by_init : {false, true}) {
            SCOPED_TRACE(testing::Message() << (c.value ? c.value : "(unset)") << ", decided "
                                            << c.decided << (by_init ? ", by init" : ""));
            start_from(c.value, c.decided);
            if (by_init) {
                LSMsolver(1, ia, ja, a, 1, 0); // the data constructor runs init
            } else {
                EXPECT_EQ(LSMsolver::establish_numthreads(0), c.want);
            }
            EXPECT_EQ(LSMsolver::mNumThreadsDefault, c.want);
            EXPECT_EQ(g_setter_calls, c.setter_calls);
            EXPECT_EQ(g_setter_last, c.given);
            setenv("OMP_NUM_THREADS", "3", 1);
            EXPECT_EQ(LSMsolver::establish_numthreads(-1), c.want);
            EXPECT_EQ(g_setter_calls, c.setter_calls);
        }
}

TEST_F(ThreadPolicy, ExplicitRequestIsUncappedAndReachesMklOnlyWhenItChanges)
{
    start_from("2");
    EXPECT_EQ(LSMsolver::establish_numthreads(4), 4);
    EXPECT_EQ(LSMsolver::establish_numthreads(4), 4);
    EXPECT_EQ(g_setter_calls, 1);
    EXPECT_EQ(LSMsolver::establish_numthreads(64), 64); // above the environment's cap of 20
    EXPECT_EQ(LSMsolver::mNumThreadsDefault, 64);
    EXPECT_EQ(g_setter_calls, 2);
    EXPECT_EQ(g_setter_last, 64);
}

} // namespace
