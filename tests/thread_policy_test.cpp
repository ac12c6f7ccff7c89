// KELMATRIX thread policy and load-time environment tests
// LSMsolver::establish_numthreads and init's thread decision, and KMP_DUPLICATE_LIB_OK at start.
//
// This executable defines its own `mkl_set_num_threads`, which the library's calls reach first;
// it counts the calls and forwards them to MKL's. Every case starts from an undecided count
// (mNumThreadsDefault = -1) and sets or unsets OMP_NUM_THREADS itself.
#include <gtest/gtest.h>

#include <dlfcn.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include "kelmatrix/sparse.h"

namespace {

int g_setter_calls = 0;
int g_setter_last = 0;

} // namespace

extern "C" __attribute__((visibility("default"))) void mkl_set_num_threads(const int* nt)
{
    using Setter = void (*)(const int*);
    static const Setter mkl_setter =
        reinterpret_cast<Setter>(dlsym(RTLD_NEXT, "mkl_set_num_threads"));
    ++g_setter_calls;
    g_setter_last = *nt;
    mkl_setter(nt);
}

namespace {

class ThreadPolicy : public ::testing::Test {
protected:
    void SetUp() override
    {
        const char* v = std::getenv("OMP_NUM_THREADS");
        had_value_ = v != nullptr;
        saved_ = v ? v : "";
        reset();
    }
    void TearDown() override
    {
        set_environment(had_value_ ? saved_.c_str() : nullptr);
        LSMsolver::mNumThreadsDefault = -1;
    }
    static void set_environment(const char* value)
    {
        if (value)
            setenv("OMP_NUM_THREADS", value, 1);
        else
            unsetenv("OMP_NUM_THREADS");
    }
    static void reset()
    {
        LSMsolver::mNumThreadsDefault = -1;
        g_setter_calls = 0;
        g_setter_last = 0;
    }

private:
    bool had_value_ = false;
    std::string saved_;
};

// Without a request and before any decision: OMP_NUM_THREADS read by atoi decides within 1..20
// and the setter is not called (OpenMP reads the variable itself); outside, or unset, it is 1,
// and only unset calls the setter. A decided count is kept without reading the variable again.
TEST_F(ThreadPolicy, EnvironmentDecidesOnceWithinOneToTwenty)
{
    const struct {
        const char* value; // nullptr: unset
        int want, setter_calls;
    } cases[] = {{"8", 8, 0},  {"20", 20, 0}, {"21", 1, 0},   {"0", 1, 0},
                 {"-3", 1, 0}, {"4x", 4, 0},  {nullptr, 1, 1}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.value ? c.value : "(unset)");
        reset();
        set_environment(c.value);
        EXPECT_EQ(LSMsolver::establish_numthreads(0), c.want);
        EXPECT_EQ(LSMsolver::mNumThreadsDefault, c.want);
        EXPECT_EQ(g_setter_calls, c.setter_calls);
        set_environment("3");
        EXPECT_EQ(LSMsolver::establish_numthreads(-1), c.want);
        EXPECT_EQ(g_setter_calls, c.setter_calls);
    }
    EXPECT_EQ(g_setter_last, 1);
}

TEST_F(ThreadPolicy, ExplicitRequestIsUncappedAndReachesMklOnlyWhenItChanges)
{
    set_environment("2");
    EXPECT_EQ(LSMsolver::establish_numthreads(4), 4);
    EXPECT_EQ(LSMsolver::establish_numthreads(4), 4);
    EXPECT_EQ(g_setter_calls, 1);
    EXPECT_EQ(g_setter_last, 4);
    EXPECT_EQ(LSMsolver::establish_numthreads(64), 64); // above the environment's cap of 20
    EXPECT_EQ(LSMsolver::mNumThreadsDefault, 64);
    EXPECT_EQ(g_setter_calls, 2);
    EXPECT_EQ(g_setter_last, 64);
}

TEST_F(ThreadPolicy, InitDecidesTheSameWay)
{
    int ia[2] = {1, 2}, ja[1] = {1};
    double a[1] = {4.0};
    const struct {
        const char* value; // nullptr: unset
        int preset;        // mNumThreadsDefault before init
        int want, setter_calls;
    } cases[] = {{"32", -1, 1, 0}, {"8", -1, 8, 0}, {nullptr, -1, 1, 1}, {"8", 64, 64, 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << (c.value ? c.value : "(unset)") << ", " << c.preset);
        reset();
        LSMsolver::mNumThreadsDefault = c.preset;
        set_environment(c.value);
        {
            LSMsolver s(1, ia, ja, a, 1, 0); // the data constructor runs init
        }
        EXPECT_EQ(LSMsolver::mNumThreadsDefault, c.want);
        EXPECT_EQ(g_setter_calls, c.setter_calls);
    }
}

// ---- load-time environment ----

// Read before main runs, after the library's own load-time initializers.
const char* const kDuplicateLibOkAtStart = std::getenv("KMP_DUPLICATE_LIB_OK");

// Whether this process was started with KMP_DUPLICATE_LIB_OK=TRUE, from the environment block
// the kernel handed it; setenv never writes there.
bool launched_with_duplicate_lib_ok()
{
    std::ifstream in("/proc/self/environ", std::ios::binary);
    const std::string block = std::string(1, '\0') +
                              std::string{std::istreambuf_iterator<char>(in), {}} + '\0';
    const std::string entry = std::string(1, '\0') + "KMP_DUPLICATE_LIB_OK=TRUE" + '\0';
    return block.find(entry) != std::string::npos;
}

TEST(LoadEnvironment, DuplicateOpenMpRuntimeIsAllowedBeforeMainStarts)
{
    if (launched_with_duplicate_lib_ok())
        GTEST_SKIP() << "started with KMP_DUPLICATE_LIB_OK=TRUE: the library's setting cannot "
                        "be told apart";
    ASSERT_NE(kDuplicateLibOkAtStart, nullptr);
    EXPECT_STREQ(kDuplicateLibOkAtStart, "TRUE");
}

} // namespace
