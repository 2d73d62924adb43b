#pragma once

// Owns one POSIX file descriptor and closes it when it goes. Move-only.
class FileDescriptor {
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int fd) : m_fd(fd) {}
    ~FileDescriptor();
    FileDescriptor(FileDescriptor&& other) noexcept : m_fd(other.release()) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept;
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    int get() const { return m_fd; }
    bool valid() const { return m_fd >= 0; }
    // Gives the descriptor up without closing it.
    int release();
    void reset(int fd = -1);

private:
    int m_fd = -1;
};
