#include "room.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <sstream>

namespace {

// Pages allocated ahead of need: 2 MiB. More are allocated when half of them are used.
constexpr std::uint64_t kAhead = 512;
constexpr std::size_t kMostLists = 256;    // of free pages, examined per search
constexpr std::chrono::seconds kPause{1};  // after growing failed
constexpr const char* kWhat = "find room in the store";

// Reads a line of mdb_reader_list: process, thread, and the commit that it reads, or "-" for none.
int NoteOldest(const char* line, void* oldest) {
  std::istringstream fields(line);
  std::string process;
  std::string thread;
  std::uint64_t commit = 0;
  if (fields >> process >> thread >> commit) {
    auto& number = *static_cast<std::uint64_t*>(oldest);
    number = std::min(number, commit);
  }
  return 0;
}

}  // namespace

Room::Room(Database& store_database) : database(store_database) {}

bool Room::Has(std::uint64_t pages) {
  if (SparePages() < std::max(kAhead / 2, pages)) {
    Grow(std::max(kAhead, pages));
    allocated = AllocatedPages();
  }
  const std::uint64_t spare = SparePages();
  return spare >= pages || spare + ReusablePages(pages - spare) >= pages;
}

bool Room::ReadersHoldPages() { return OldestRead() < database.LastCommit(); }

// Asks the file system, since other workers extend the file too.
std::uint64_t Room::AllocatedPages() const {
  struct stat status {};
  Expect(fstat(database.File(), &status) == 0 ? 0 : errno, kWhat);
  return std::min(static_cast<std::uint64_t>(status.st_size) / database.PageBytes(),
                  database.MapPages());
}

std::uint64_t Room::SparePages() const {
  const std::uint64_t used = database.LastPage() + 1;
  return allocated > used ? allocated - used : 0;
}

// A full file system is not asked repeatedly, because some allocate all that is left before they
// fail.
void Room::Grow(std::uint64_t pages_ahead) {
  const auto now = std::chrono::steady_clock::now();
  const std::uint64_t now_allocated = AllocatedPages();
  const std::uint64_t wanted = std::min(database.LastPage() + 1 + pages_ahead, database.MapPages());
  if (now_allocated >= wanted) growth_error = 0;
  if (now_allocated >= wanted || now < next_growth) return;
  const std::uint64_t page = database.PageBytes();
  growth_error = posix_fallocate(database.File(), static_cast<off_t>(now_allocated * page),
                                 static_cast<off_t>((wanted - now_allocated) * page));
  if (growth_error != 0) next_growth = now + kPause;
}

// LMDB lists the pages that each commit freed. They can be reused if the commit is older than the
// last one and than any that is being read.
std::uint64_t Room::ReusablePages(std::uint64_t enough) {
  const std::uint64_t oldest = OldestRead();
  const Database::ReadScope scope(database);
  const Cursor cursor = OpenCursor(scope.Get(), 0);
  std::uint64_t pages = 0;
  MDB_val commit{};
  MDB_val list{};
  for (std::size_t lists = 0; pages < enough && lists < kMostLists; ++lists) {
    if (!Found(mdb_cursor_get(cursor.get(), &commit, &list, MDB_NEXT), kWhat)) break;
    std::size_t number = 0;
    std::memcpy(&number, commit.mv_data, sizeof(number));
    if (number >= oldest) break;
    std::memcpy(&number, list.mv_data, sizeof(number));  // the first element is their count
    pages += number;
  }
  return pages;
}

std::uint64_t Room::OldestRead() {
  std::uint64_t oldest = database.LastCommit();
  const int result = mdb_reader_list(database.Get(), NoteOldest, &oldest);
  Expect(result < 0 ? result : 0, kWhat);
  return oldest;
}

std::string Room::Shortage() const {
  const std::string size = std::to_string(AllocatedPages() * database.PageBytes()) + " bytes";
  if (growth_error == 0) return "the store's file has reached its maximum of " + size;
  return std::string("the file system or quota does not let the store's file grow beyond ") + size +
         ": " + std::strerror(growth_error);
}
