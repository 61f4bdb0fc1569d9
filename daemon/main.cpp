// zelttokenmgrd, the token daemon.
#include <malloc.h>
#include <sys/stat.h>
#include <syslog.h>

#include <csignal>
#include <cstdlib>
#include <exception>
#include <iostream>

#include "options.h"
#include "supervisor.h"

namespace {

constexpr int kLargeBlock = 128 << 10;  // bytes: glibc's own first value, mallopt(3)

void PrepareProcess(const Options& options) {
  openlog("zelttokenmgrd", LOG_PID | LOG_NDELAY | (options.log_to_stderr ? LOG_PERROR : 0),
          LOG_DAEMON);
  // Fixed, glibc does not raise them after the first large message, and large ones leave no trace.
  mallopt(M_MMAP_THRESHOLD, kLargeBlock);
  mallopt(M_TRIM_THRESHOLD, kLargeBlock);
  umask(S_IRWXG | S_IRWXO);  // the store holds tokens
  signal(SIGPIPE, SIG_IGN);  // a client that left is an error of send(2)
  signal(SIGXFSZ, SIG_IGN);  // a store at the file-size limit is an error of write(2)
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = ParseOptions(argc, argv);
  PrepareProcess(options);
  try {
    Supervisor supervisor(options);
    supervisor.Run();
    syslog(LOG_NOTICE, "stopped");
    return EXIT_SUCCESS;
  } catch (const std::exception& error) {
    syslog(LOG_ERR, "%s", error.what());
    if (!options.log_to_stderr) std::cerr << "zelttokenmgrd: " << error.what() << '\n';
    return EXIT_FAILURE;
  }
}
