// KELMATRIX thread policy and load-time environment tests
// LSMsolver::establish_numthreads and init's thread decision, and KMP_DUPLICATE_LIB_OK at start.
//
// This executable defines its own `mkl_set_num_threads`, which the library's calls reach first;
// it counts the calls and forwards them to MKL's. Every case starts from an undecided count
// (mNumThreadsDefault = -1) and sets or unsets OMP_NUM_THREADS itself.
#include <gtest/gtest.h>

#include <dlfcn.h>

#include <algorithm>
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
        if (had_value_)
            setenv("OMP_NUM_THREADS", saved_.c_str(), 1);
        else
            unsetenv("OMP_NUM_THREADS");
        LSMsolver::mNumThreadsDefault = -1;
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

TEST_F(ThreadPolicy, EnvironmentDecidesWithinOneToTwentyWithoutTheSetter)
{
    const struct {
        const char* value;
        int want;
    } cases[] = {{"8", 8}, {"1", 1}, {"20", 20}, {"21", 1}, {"32", 1},
                 {"0", 1}, {"-3", 1}, {"abc", 1}, {"4x", 4}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string("OMP_NUM_THREADS=") + c.value);
        reset();
        setenv("OMP_NUM_THREADS", c.value, 1);
        EXPECT_EQ(LSMsolver::establish_numthreads(0), c.want);
        EXPECT_EQ(LSMsolver::mNumThreadsDefault, c.want);
        EXPECT_EQ(g_setter_calls, 0);
    }
}

TEST_F(ThreadPolicy, UnsetEnvironmentGivesOneThroughTheSetter)
{
    unsetenv("OMP_NUM_THREADS");
    EXPECT_EQ(LSMsolver::establish_numthreads(0), 1);
    EXPECT_EQ(LSMsolver::mNumThreadsDefault, 1);
    EXPECT_EQ(g_setter_calls, 1);
    EXPECT_EQ(g_setter_last, 1);
    EXPECT_EQ(LSMsolver::establish_numthreads(-2), 1);
    EXPECT_EQ(g_setter_calls, 1);
}

TEST_F(ThreadPolicy, DecidedCountIsKeptWithoutReadingTheEnvironmentAgain)
{
    setenv("OMP_NUM_THREADS", "8", 1);
    ASSERT_EQ(LSMsolver::establish_numthreads(0), 8);
    setenv("OMP_NUM_THREADS", "3", 1);
    EXPECT_EQ(LSMsolver::establish_numthreads(0), 8);
    unsetenv("OMP_NUM_THREADS");
    EXPECT_EQ(LSMsolver::establish_numthreads(-1), 8);
    EXPECT_EQ(g_setter_calls, 0);
}

TEST_F(ThreadPolicy, ExplicitRequestIsUncappedAndReachesMklOnlyWhenItChanges)
{
    setenv("OMP_NUM_THREADS", "2", 1);
    EXPECT_EQ(LSMsolver::establish_numthreads(4), 4);
    EXPECT_EQ(LSMsolver::establish_numthreads(4), 4);
    EXPECT_EQ(g_setter_calls, 1);
    EXPECT_EQ(g_setter_last, 4);

    EXPECT_EQ(LSMsolver::establish_numthreads(64), 64); // above the environment's cap of 20
    EXPECT_EQ(LSMsolver::mNumThreadsDefault, 64);
    EXPECT_EQ(g_setter_calls, 2);
    EXPECT_EQ(g_setter_last, 64);
    EXPECT_EQ(LSMsolver::establish_numthreads(0), 64);
    EXPECT_EQ(g_setter_calls, 2);
}

TEST_F(ThreadPolicy, InitDecidesTheSameWay)
{
    int ia[2] = {1, 2}, ja[1] = {1};
    double a[1] = {4.0};
    const struct {
        const char* value; // nullptr: unset
        int preset;        // mNumThreadsDefault before init
        int want, setter_calls;
    } cases[] = {{"32", -1, 1, 0}, {"8", -1, 8, 0}, {nullptr, -1, 1, 1}, {"8", 64, 64, 0},
                 {nullptr, 3, 3, 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string("OMP_NUM_THREADS=") + (c.value ? c.value : "(unset)") +
                     ", decided " + std::to_string(c.preset));
        reset();
        LSMsolver::mNumThreadsDefault = c.preset;
        if (c.value)
            setenv("OMP_NUM_THREADS", c.value, 1);
        else
            unsetenv("OMP_NUM_THREADS");
        {
            LSMsolver s(1, ia, ja, a, 1, 0); // the data constructor runs init
        }
        EXPECT_EQ(LSMsolver::mNumThreadsDefault, c.want);
        EXPECT_EQ(g_setter_calls, c.setter_calls);
        if (c.setter_calls > 0) {
            EXPECT_EQ(g_setter_last, 1);
        }
    }
}

// ---- load-time environment ----

// Read before main runs, after the library's own load-time initializers.
const char* const kDuplicateLibOkAtStart = std::getenv("KMP_DUPLICATE_LIB_OK");

// The value this process was started with, from the environment block the kernel handed it;
// setenv never writes there.
bool launched_with(const std::string& name, std::string& value)
{
    std::ifstream in("/proc/self/environ", std::ios::binary);
    const std::string block{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    const std::string key = name + "=";
    for (std::size_t pos = 0; pos < block.size();) {
        const std::size_t end = std::min(block.find('\0', pos), block.size());
        if (block.compare(pos, key.size(), key) == 0) {
            value = block.substr(pos + key.size(), end - pos - key.size());
            return true;
        }
        pos = end + 1;
    }
    return false;
}

TEST(LoadEnvironment, DuplicateOpenMpRuntimeIsAllowedBeforeMainStarts)
{
    std::string launched;
    if (launched_with("KMP_DUPLICATE_LIB_OK", launched) && launched == "TRUE")
        GTEST_SKIP() << "started with KMP_DUPLICATE_LIB_OK=TRUE: the library's setting cannot "
                        "be told apart";
    ASSERT_NE(kDuplicateLibOkAtStart, nullptr);
    EXPECT_STREQ(kDuplicateLibOkAtStart, "TRUE");
}

} // namespace
