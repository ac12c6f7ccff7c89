// KELMATRIX misuse reports
// The handler of the checked library: installed, replaced, and called on a broken condition.
//
// Only the checked library compiles this file's content. The handler is one atomic pointer, so
// threads may report and replace it concurrently; nullptr stands for the default, which writes
// the report as one line to stderr and aborts. A report is formatted into a buffer of its own
// (long values are cut short, never overrun) and handed to the handler; should the handler
// return, the library aborts, so no call continues past a broken condition.
#if defined(KELMATRIX_CHECKED)

#    include <atomic>
#    include <cstdarg>
#    include <cstdio>
#    include <cstdlib>

#    include "checks/checks.h"
#    include "kelmatrix/checked.h"

namespace {

std::atomic<kelmatrix_check_handler> installed{nullptr};

void default_handler(const char* function, const char* condition, const char* values)
{
    std::fprintf(stderr, "kelmatrix: misuse in %s: %s does not hold (%s)\n", function, condition,
                 values);
    std::fflush(stderr);
    std::abort();
}

} // namespace

kelmatrix_check_handler kelmatrix_set_check_handler(kelmatrix_check_handler handler)
{
    return installed.exchange(handler);
}

namespace kelmatrix {
namespace checks {

void require(bool ok, const char* function, const char* condition, const char* values, ...)
{
    if (ok)
        return;
    char text[256];
    std::va_list args;
    va_start(args, values);
    std::vsnprintf(text, sizeof text, values, args);
    va_end(args);
    const kelmatrix_check_handler handler = installed.load();
    (handler ? handler : default_handler)(function, condition, text);
    std::abort();
}

} // namespace checks
} // namespace kelmatrix

#endif
