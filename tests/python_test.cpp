// The Python package's own tests, on a private machine.
#include "support/programs.h"

namespace ZELT {
namespace {

const int source_folder = fcntl(open(ZELT_SOURCE_DIR, O_PATH | O_DIRECTORY), F_DUPFD, 10);

TEST_F(ProgramsTest, PythonPackage) {
  const std::string folder = "/proc/self/fd/" + std::to_string(source_folder) + "/python";
  Program tests("PYTHONPATH=" + folder + " exec python3 -B -W error " + folder +
                "/tests/test_zelttokenmanager.py");
  EXPECT_EQ(tests.End(), 0) << tests.Errors();
}

}  // namespace
}  // namespace ZELT
