#include "DescriptorLimit.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

DescriptorLimit::DescriptorLimit(int spare) {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return;
    }
    // The kernel hands out the lowest free descriptor and refuses numbers at or above the soft
    // limit: with the limit at the lowest free number, the next open has no number left; one
    // above it leaves exactly that one number. (More spares count only the free ones.)
    const int lowestFree = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (lowestFree < 0) {
        return;
    }
    ::close(lowestFree);
    m_previousSoftLimit = limit.rlim_cur;
    limit.rlim_cur = static_cast<rlim_t>(lowestFree + spare);
    m_active = ::setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

DescriptorLimit::~DescriptorLimit() {
    if (!m_active) {
        return;
    }
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = static_cast<rlim_t>(m_previousSoftLimit);
    ::setrlimit(RLIMIT_NOFILE, &limit);
}
