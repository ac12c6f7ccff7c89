// KELMATRIX load-time environment tests
// KMP_DUPLICATE_LIB_OK=TRUE as the library's load-time step leaves it, seen from each side.
//
// This executable defines putenv and setenv itself (exported, so the library's calls reach them
// first), logs every call and forwards it to the C library. Checked: the calls themselves (order,
// arguments, where the putenv string lives, made by the library before this executable's own
// initializers); the C runtime's table as getenv reads it, which after load refers to no storage
// of the library; and, in child processes launched with KMP_DUPLICATE_LIB_OK=FALSE, the launch
// block (/proc/self/environ, which no change after start reaches) against getenv, and the OpenMP
// runtime's own reading: two copies of LLVM's OpenMP runtime start side by side, and abort as
// they should when the variable is set back to FALSE.
#include <dlfcn.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kelmatrix/matrix.h"

extern char** environ;

namespace {

struct EnvCall {
    bool is_putenv;
    const char* string; // putenv's argument as given (the pointer itself matters)
    char name[48];      // putenv: the whole name=value string; setenv: the name
    char value[16];     // setenv only
    int overwrite;      // setenv only
    void* caller;
};

// Zero-initialized, so usable by the library's load-time step before any initializer of ours.
EnvCall g_calls[32];
int g_call_count;

EnvCall* next_slot(bool is_putenv, void* caller)
{
    if (g_call_count == static_cast<int>(std::size(g_calls)))
        return nullptr;
    EnvCall* c = &g_calls[g_call_count++];
    c->is_putenv = is_putenv;
    c->caller = caller;
    return c;
}

// How many calls the library's load-time step had made when this executable's own dynamic
// initializers ran (the library's ran before, as a dependency's always do).
const int g_calls_at_executable_start = g_call_count;

} // namespace

extern "C" int putenv(char* string) noexcept
{
    if (EnvCall* c = next_slot(true, __builtin_return_address(0))) {
        c->string = string;
        std::snprintf(c->name, sizeof c->name, "%s", string);
    }
    using Putenv = int (*)(char*);
    static const auto next = reinterpret_cast<Putenv>(dlsym(RTLD_NEXT, "putenv"));
    return next(string);
}

extern "C" int setenv(const char* name, const char* value, int overwrite) noexcept
{
    if (EnvCall* c = next_slot(false, __builtin_return_address(0))) {
        std::snprintf(c->name, sizeof c->name, "%s", name);
        std::snprintf(c->value, sizeof c->value, "%s", value);
        c->overwrite = overwrite;
    }
    using Setenv = int (*)(const char*, const char*, int);
    static const auto next = reinterpret_cast<Setenv>(dlsym(RTLD_NEXT, "setenv"));
    return next(name, value, overwrite);
}

namespace {

// The loaded object that address p lies in ("" for none: heap, stack).
std::string object_of(const void* p)
{
    Dl_info info{};
    return dladdr(p, &info) != 0 && info.dli_fname ? info.dli_fname : "";
}

std::string library_file()
{
    return object_of(reinterpret_cast<const void*>(&kelmatrix_get_mkl_misalignment));
}

TEST(LoadEnvironment, PutenvOfAStaticStringThenSetenvByTheLibraryBeforeTheProgramStarts)
{
    const std::string library = library_file();
    ASSERT_FALSE(library.empty());
    std::vector<EnvCall> ours;
    for (int k = 0; k < g_calls_at_executable_start; ++k)
        if (std::strncmp(g_calls[k].name, "KMP_DUPLICATE_LIB_OK", 20) == 0)
            ours.push_back(g_calls[k]);
    ASSERT_EQ(ours.size(), 2u) << "calls naming KMP_DUPLICATE_LIB_OK before main";

    EXPECT_TRUE(ours[0].is_putenv);
    EXPECT_STREQ(ours[0].name, "KMP_DUPLICATE_LIB_OK=TRUE");
    // putenv keeps the very array, so it must be static storage of the library, not a stack or
    // temporary string.
    EXPECT_EQ(object_of(ours[0].string), library);
    EXPECT_EQ(object_of(ours[0].caller), library);

    EXPECT_FALSE(ours[1].is_putenv);
    EXPECT_STREQ(ours[1].name, "KMP_DUPLICATE_LIB_OK");
    EXPECT_STREQ(ours[1].value, "TRUE");
    EXPECT_NE(ours[1].overwrite, 0);
    // No caller check here: the initializer's last call may be compiled as a tail call, whose
    // return address is then the dynamic loader's.
}

TEST(LoadEnvironment, TheTableHoldsTrueInStorageOfItsOwn)
{
    const char* value = std::getenv("KMP_DUPLICATE_LIB_OK");
    ASSERT_NE(value, nullptr);
    EXPECT_STREQ(value, "TRUE");
    // setenv replaced the putenv entry with a copy: unloading the library leaves no entry
    // pointing into it.
    EXPECT_NE(object_of(value), library_file());
}

// ---- child processes launched with KMP_DUPLICATE_LIB_OK=FALSE ----

constexpr const char* kRole = "KELMATRIX_LOAD_ENVIRONMENT_CHILD";

const char* role()
{
    const char* r = std::getenv(kRole);
    return r ? r : "";
}

// The environment block the kernel handed this process at launch.
std::vector<std::string> launch_block()
{
    std::ifstream in("/proc/self/environ", std::ios::binary);
    const std::string block{std::istreambuf_iterator<char>(in), {}};
    std::vector<std::string> entries;
    for (std::size_t at = 0; at < block.size();) {
        const std::size_t end = block.find('\0', at);
        entries.push_back(block.substr(at, end - at));
        at = end == std::string::npos ? block.size() : end + 1;
    }
    return entries;
}

void launched_with_false_reads_true()
{
    const std::vector<std::string> block = launch_block();
    EXPECT_EQ(std::count(block.begin(), block.end(), "KMP_DUPLICATE_LIB_OK=FALSE"), 1);
    EXPECT_EQ(std::count(block.begin(), block.end(), "KMP_DUPLICATE_LIB_OK=TRUE"), 0);
    ASSERT_NE(std::getenv("KMP_DUPLICATE_LIB_OK"), nullptr);
    EXPECT_STREQ(std::getenv("KMP_DUPLICATE_LIB_OK"), "TRUE");
}

// Loads LLVM's OpenMP runtime and a copy of its file (a second instance: same code, another
// inode) and starts one after the other. The second start finds the first registered and
// aborts with "OMP: Error #15" unless KMP_DUPLICATE_LIB_OK is true.
void two_openmp_runtimes_start()
{
    void* first = dlopen("libomp.so.5", RTLD_NOW | RTLD_LOCAL);
    if (!first)
        GTEST_SKIP() << "no LLVM OpenMP runtime: " << dlerror();
    using MaxThreads = int (*)();
    const auto start_first = reinterpret_cast<MaxThreads>(dlsym(first, "omp_get_max_threads"));
    ASSERT_NE(start_first, nullptr);
    const std::filesystem::path copy =
        std::filesystem::temp_directory_path() / ("kelmatrix_omp_" + std::to_string(getpid()));
    std::filesystem::copy_file(object_of(reinterpret_cast<const void*>(start_first)), copy);
    void* second = dlopen(copy.c_str(), RTLD_NOW | RTLD_LOCAL);
    std::filesystem::remove(copy);
    ASSERT_NE(second, nullptr) << dlerror();
    const auto start_second = reinterpret_cast<MaxThreads>(dlsym(second, "omp_get_max_threads"));
    ASSERT_NE(start_second, start_first);

    if (std::strcmp(role(), "control") == 0)
        setenv("KMP_DUPLICATE_LIB_OK", "FALSE", 1); // as if the library had not set it
    EXPECT_GE(start_first(), 1);
    EXPECT_GE(start_second(), 1);
}

class ChildTest : public testing::Test {
public:
    explicit ChildTest(void (*body)()) : body_(body) {}
    void TestBody() override { body_(); }

private:
    void (*body_)();
};

// The child cases exist only in the child processes, so a plain run never lists them.
template <void (*Body)()> void register_child_test(const char* name)
{
    testing::RegisterTest("LoadEnvironmentChild", name, nullptr, nullptr, __FILE__, __LINE__,
                          []() -> testing::Test* { return new ChildTest(Body); });
}

const bool g_child_tests_registered =
    *role() && (register_child_test<launched_with_false_reads_true>("LaunchedWithFalseReadsTrue"),
                register_child_test<two_openmp_runtimes_start>("TwoOpenMpRuntimesStart"), true);

struct ChildResult {
    int status = 0;
    std::string output; // stdout and stderr together
};

// Runs this test executable again with the given filter, the role set and
// KMP_DUPLICATE_LIB_OK=FALSE in place of whatever this process has.
ChildResult run_child(const char* child_role, const char* filter)
{
    const std::string self = std::filesystem::read_symlink("/proc/self/exe");
    std::vector<std::string> env{std::string(kRole) + "=" + child_role,
                                 "KMP_DUPLICATE_LIB_OK=FALSE"};
    for (char** e = environ; *e; ++e)
        if (std::strncmp(*e, "KMP_DUPLICATE_LIB_OK=", 21) != 0 &&
            std::strncmp(*e, kRole, std::strlen(kRole)) != 0)
            env.emplace_back(*e);
    const std::string filter_arg = std::string("--gtest_filter=") + filter;
    std::vector<char*> argv{const_cast<char*>(self.c_str()), const_cast<char*>(filter_arg.c_str()),
                            nullptr};
    std::vector<char*> envp;
    for (std::string& s : env)
        envp.push_back(s.data());
    envp.push_back(nullptr);

    ChildResult result;
    int out[2];
    if (pipe(out) != 0)
        return result;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_adddup2(&actions, out[1], 2);
    posix_spawn_file_actions_addclose(&actions, out[0]);
    pid_t pid = -1;
    const int spawned =
        posix_spawn(&pid, self.c_str(), &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    char buf[4096];
    for (ssize_t got; spawned == 0 && (got = read(out[0], buf, sizeof buf)) > 0;)
        result.output.append(buf, static_cast<std::size_t>(got));
    close(out[0]);
    if (spawned != 0 || waitpid(pid, &result.status, 0) != pid)
        result.status = -1;
    // An OpenMP runtime that aborts leaves its registration in /dev/shm; the child's pid names it.
    const std::string registration = "__KMP_REGISTERED_LIB_" + std::to_string(pid) + "_";
    std::error_code ignored;
    for (const auto& f : std::filesystem::directory_iterator("/dev/shm", ignored))
        if (f.path().filename().string().rfind(registration, 0) == 0)
            std::filesystem::remove(f.path(), ignored);
    return result;
}

TEST(LoadEnvironment, ChildProcesses)
{
    if (g_child_tests_registered)
        GTEST_SKIP() << "already a child";
    const ChildResult child = run_child("library", "LoadEnvironmentChild.*");
    ASSERT_TRUE(WIFEXITED(child.status) && WEXITSTATUS(child.status) == 0) << child.output;
    ASSERT_NE(child.output.find("[  PASSED  ] 2 tests"), std::string::npos) << child.output;
    if (child.output.find("[  SKIPPED ]") != std::string::npos)
        GTEST_SKIP() << "the OpenMP runtime part could not run:\n" << child.output;

    // The same starts with the variable set back to FALSE: the runtime really reads it.
    const ChildResult control = run_child("control", "LoadEnvironmentChild.TwoOpenMpRuntimesStart");
    EXPECT_TRUE(WIFSIGNALED(control.status) && WTERMSIG(control.status) == SIGABRT)
        << control.output;
    EXPECT_NE(control.output.find("OMP: Error #15"), std::string::npos) << control.output;
}

} // namespace
