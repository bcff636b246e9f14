#include "bench/CountedMemory.h"

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<bool> isCounting = false;
std::atomic<std::size_t> allocatedBytes = 0;
std::atomic<std::size_t> mostBytes = 0;

std::size_t chunkSize(void* memory) { return malloc_usable_size(memory) + sizeof(std::size_t); }

}  // namespace

void* operator new(std::size_t size) {
  void* memory = std::malloc(size);
  if (!memory) std::abort();
  if (isCounting.load(std::memory_order_relaxed)) {
    const std::size_t now = allocatedBytes += chunkSize(memory);
    std::size_t most = mostBytes;
    while (most < now && !mostBytes.compare_exchange_weak(most, now)) {
    }
  }
  return memory;
}
void operator delete(void* memory) noexcept {
  if (memory && isCounting.load(std::memory_order_relaxed)) allocatedBytes -= chunkSize(memory);
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept { operator delete(memory); }

namespace quillmark::bench {

CountedMemory::CountedMemory() {
  allocatedBytes = mostBytes = 0;
  isCounting = true;
}
CountedMemory::~CountedMemory() { isCounting = false; }

std::size_t CountedMemory::now() const { return allocatedBytes; }
std::size_t CountedMemory::most() const { return mostBytes; }

}  // namespace quillmark::bench
