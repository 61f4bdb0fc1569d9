// What the fuzz targets share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// The entry points that a fuzzer, or replay.cpp, calls (libFuzzer's FuzzerInterface.h).
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace ZELT::Fuzz {

/// Ends the process, so that the fuzzer keeps the input, unless `holds`.
void Expect(bool holds, const char* what);

/// Enters a mount namespace with an empty /var in memory, in a user namespace when not root. Ends
/// the process with 77, which CTest counts as skipped, where the machine forbids that.
void EnterPrivateVar();

/// Writes a file in place, as one that another process may have open.
void Overwrite(const std::string& path, std::string_view text);

std::string ReadWhole(const std::string& path);

/// Cuts the next line off `text` and returns it without its newline.
std::string CutLine(std::string_view& text);

/// Returns what was logged since the last call: the program's own `syslog` keeps it.
std::string TakeLog();

}  // namespace ZELT::Fuzz
