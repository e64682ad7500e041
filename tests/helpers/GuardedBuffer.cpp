#include "GuardedBuffer.h"

#include <sys/mman.h>
#include <unistd.h>

#include <stdexcept>

namespace qrvtest {

GuardedBuffer::GuardedBuffer(size_t size, Edge edge) : size_(size)
{
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t usable = (size + page - 1) / page * page;
    mappingSize_ = usable + 2 * page;
    mapping_ = mmap(nullptr, mappingSize_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapping_ == MAP_FAILED) throw std::runtime_error("mmap failed");
    auto* base = static_cast<uint8_t*>(mapping_);
    if (mprotect(base, page, PROT_NONE) != 0 || mprotect(base + page + usable, page, PROT_NONE) != 0) {
        munmap(mapping_, mappingSize_);
        throw std::runtime_error("mprotect failed");
    }
    data_ = edge == Edge::Front ? base + page : base + page + usable - size;
}

GuardedBuffer::~GuardedBuffer()
{
    munmap(mapping_, mappingSize_);
}

}  // namespace qrvtest
