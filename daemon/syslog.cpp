// syslog(3), which waits for a reader of the log. The library and the C library's name services
// call it in a worker, which must not wait. The dynamic linker prefers a program's own symbols to
// those of its libraries (ld.so(8)), so these functions take the place of the C library's, and
// lines go to the daemon's log. <syslog.h> is not included, because it may define them inline.
#include <cstdarg>

#include "log.h"

// The linker exports them: see CMakeLists.txt. The last two are what the first two become with
// _FORTIFY_SOURCE (feature_test_macros(7)).
#pragma GCC visibility push(default)
// NOLINTBEGIN(readability-identifier-naming, bugprone-reserved-identifier, cert-dcl*): the C
// library's
extern "C" {

void vsyslog(int priority, const char* format, va_list arguments) {
  VLog(priority, format, arguments);
}

void syslog(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  VLog(priority, format, arguments);
  va_end(arguments);
}

void __vsyslog_chk(int priority, int /*flag*/, const char* format, va_list arguments) {
  VLog(priority, format, arguments);
}

void __syslog_chk(int priority, int /*flag*/, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  VLog(priority, format, arguments);
  va_end(arguments);
}
}
// NOLINTEND(readability-identifier-naming, bugprone-reserved-identifier, cert-dcl*)
#pragma GCC visibility pop
