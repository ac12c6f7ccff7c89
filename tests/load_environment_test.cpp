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

// The environment block the kernel handed this process at launch: its name=value strings.
std::vector<std::string> launch_block()
{
    std::ifstream in("/proc/self/environ", std::ios::binary);
    std::vector<std::string> entries;
    for (std::string entry; std::getline(in, entry, '\0');)
        entries.push_back(entry);
    return entries;
}

// A child's whole run (main never starts): 0 if what its role checks holds, 77 if it cannot run.
// "library": launched with FALSE, getenv reads TRUE. "runtimes" and "control" load LLVM's OpenMP
// runtime and a copy of its file (a second instance: same code, another inode) and start one after
// the other; the second start finds the first registered and aborts with "OMP: Error #15" unless
// KMP_DUPLICATE_LIB_OK is true, which "control" sets back to FALSE first.
int child(const std::string& role)
{
    if (role == "library") {
        const std::vector<std::string> block = launch_block();
        const auto count = [&](const char* entry) {
            return int(std::count(block.begin(), block.end(), entry));
        };
        const char* value = std::getenv("KMP_DUPLICATE_LIB_OK");
        const int launched_false = count("KMP_DUPLICATE_LIB_OK=FALSE");
        const int launched_true = count("KMP_DUPLICATE_LIB_OK=TRUE");
        std::printf("launch block: %d FALSE, %d TRUE; getenv: %s\n", launched_false, launched_true,
                    value ? value : "(unset)");
        return launched_false == 1 && launched_true == 0 && value && !std::strcmp(value, "TRUE")
                   ? 0
                   : 1;
    }
    using MaxThreads = int (*)();
    void* first = dlopen("libomp.so.5", RTLD_NOW | RTLD_LOCAL);
    if (!first)
        return std::printf("no LLVM OpenMP runtime: %s\n", dlerror()), 77;
    const auto start_first = reinterpret_cast<MaxThreads>(dlsym(first, "omp_get_max_threads"));
    const std::filesystem::path copy =
        std::filesystem::temp_directory_path() / ("kelmatrix_omp_" + std::to_string(getpid()));
    std::filesystem::copy_file(object_of(reinterpret_cast<const void*>(start_first)), copy);
    void* second = dlopen(copy.c_str(), RTLD_NOW | RTLD_LOCAL);
    std::filesystem::remove(copy);
    const auto start_second =
        second ? reinterpret_cast<MaxThreads>(dlsym(second, "omp_get_max_threads")) : nullptr;
    if (!start_second || start_second == start_first)
        return std::printf("no second runtime instance\n"), 1;
    if (role == "control")
        setenv("KMP_DUPLICATE_LIB_OK", "FALSE", 1); // as if the library had not set it
    return start_first() >= 1 && start_second() >= 1 ? 0 : 1;
}

const bool g_is_child = [] {
    if (const char* role = std::getenv(kRole))
        std::exit(child(role));
    return false;
}();

struct ChildResult {
    int status = -1;
    std::string output; // stdout and stderr together
};

// Runs this executable again as the given child, with KMP_DUPLICATE_LIB_OK=FALSE in place of
// whatever this process has. The shell prints its pid first, then becomes the child.
ChildResult run_child(const std::string& role)
{
    const std::string self = std::filesystem::read_symlink("/proc/self/exe");
    const std::string command = "echo $$; exec env KMP_DUPLICATE_LIB_OK=FALSE " +
                                std::string(kRole) + "=" + role + " '" + self + "' 2>&1";
    ChildResult result;
    FILE* out = popen(command.c_str(), "r");
    if (!out)
        return result;
    char buf[4096];
    for (std::size_t got; (got = std::fread(buf, 1, sizeof buf, out)) > 0;)
        result.output.append(buf, got);
    result.status = pclose(out);
    // An OpenMP runtime that aborts leaves its registration in /dev/shm; the child's pid names it.
    const std::string registration =
        "__KMP_REGISTERED_LIB_" + result.output.substr(0, result.output.find('\n')) + "_";
    std::error_code ignored;
    for (const auto& f : std::filesystem::directory_iterator("/dev/shm", ignored))
        if (f.path().filename().string().rfind(registration, 0) == 0)
            std::filesystem::remove(f.path(), ignored);
    return result;
}

TEST(LoadEnvironment, ChildProcesses)
{
    const ChildResult library = run_child("library");
    EXPECT_TRUE(WIFEXITED(library.status) && WEXITSTATUS(library.status) == 0) << library.output;
    const ChildResult runtimes = run_child("runtimes");
    if (WIFEXITED(runtimes.status) && WEXITSTATUS(runtimes.status) == 77)
        GTEST_SKIP() << "the OpenMP runtime part could not run:\n" << runtimes.output;
    EXPECT_TRUE(WIFEXITED(runtimes.status) && WEXITSTATUS(runtimes.status) == 0) << runtimes.output;

    // The same starts with the variable set back to FALSE: the runtime really reads it.
    const ChildResult control = run_child("control");
    EXPECT_TRUE(WIFSIGNALED(control.status) && WTERMSIG(control.status) == SIGABRT)
        << control.output;
    EXPECT_NE(control.output.find("OMP: Error #15"), std::string::npos) << control.output;
}

} // namespace
