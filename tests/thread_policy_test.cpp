// KELMATRIX thread policy and load-time environment tests
// LSMsolver::establish_numthreads and init's thread decision, and KMP_DUPLICATE_LIB_OK at start.
//
// This executable defines its own `mkl_set_num_threads`, which the library's calls reach first;
// it counts the calls and forwards them to MKL's. Every case sets the decided count and sets or
// unsets OMP_NUM_THREADS itself.
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

// Without a request, a decided count stands; before any decision OMP_NUM_THREADS read by atoi
// decides within 1..20 without the setter (OpenMP reads the variable itself), and 1 outside that
// range; only an unset variable gives 1 through the setter. init decides the same way, and the
// decision is kept without reading the variable again.
TEST(ThreadPolicy, EnvironmentDecidesOnceWithinOneToTwenty)
{
    int ia[2] = {1, 2}, ja[1] = {1};
    double a[1] = {4.0};
    const struct {
        const char* value;
        int decided, want, setter_calls;
    } cases[] = {{"8", -1, 8, 0}, {"20", -1, 20, 0}, {"21", -1, 1, 0}, {"0", -1, 1, 0},
                 {"4x", -1, 4, 0}, {nullptr, -1, 1, 1}, {"8", 64, 64, 0}, {nullptr, 3, 3, 0}};
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
            EXPECT_EQ(g_setter_last, c.setter_calls); // when called, the setter was given 1
            setenv("OMP_NUM_THREADS", "3", 1);
            EXPECT_EQ(LSMsolver::establish_numthreads(-1), c.want);
            EXPECT_EQ(g_setter_calls, c.setter_calls);
        }
}

TEST(ThreadPolicy, ExplicitRequestIsUncappedAndReachesMklOnlyWhenItChanges)
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
