// A buffer with an inaccessible page right before or right after its bytes,
// so that any access just outside it faults.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qrvtest {

class GuardedBuffer {
public:
    enum class Edge { Front, Back };  // which end of the bytes touches a guard page

    GuardedBuffer(size_t size, Edge edge);
    ~GuardedBuffer();
    GuardedBuffer(const GuardedBuffer&) = delete;
    GuardedBuffer& operator=(const GuardedBuffer&) = delete;

    uint8_t* data() const { return data_; }
    size_t size() const { return size_; }

private:
    void* mapping_ = nullptr;
    size_t mappingSize_ = 0;
    uint8_t* data_ = nullptr;
    size_t size_ = 0;
};

}  // namespace qrvtest
