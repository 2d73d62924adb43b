#include "FileDescriptor.h"

#include <unistd.h>

FileDescriptor::~FileDescriptor() {
    reset();
}

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept {
    if (this != &other) {
        reset(other.release());
    }
    return *this;
}

int FileDescriptor::release() {
    const int fd = m_fd;
    m_fd = -1;
    return fd;
}

void FileDescriptor::reset(int fd) {
    if (m_fd >= 0) {
        ::close(m_fd);
    }
    m_fd = fd;
}
