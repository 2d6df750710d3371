// Preloaded into programs, counts their allocations together: the file that KX_ALLOCATIONS names holds the
// number, as eight bytes. What ends without running its destructors is counted, too.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
}

namespace {

using counter = std::atomic<unsigned long>;

counter unshared;
std::atomic<counter*> allocations{&unshared};

// Shared with the programs started from here, and through the file with those that they execute.
[[gnu::constructor]] void share() {
  const char* const path = std::getenv("KX_ALLOCATIONS");
  const int fd = path == nullptr ? -1 : open(path, O_RDWR | O_CLOEXEC);
  if (fd < 0) return;
  void* const shared = mmap(nullptr, sizeof(counter), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  if (shared != MAP_FAILED) allocations = static_cast<counter*>(shared);
}

}  // namespace

extern "C" {

void* malloc(std::size_t size) {
  ++*allocations.load();
  return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) {
  ++*allocations.load();
  return __libc_calloc(count, size);
}

void* realloc(void* block, std::size_t size) {
  ++*allocations.load();
  return __libc_realloc(block, size);
}

void* aligned_alloc(std::size_t alignment, std::size_t size) {
  ++*allocations.load();
  return __libc_memalign(alignment, size);
}
}
