#pragma once

// While it lives, the process can open only `spare` more file descriptors; beyond that every
// open() and opendir() fails with EMFILE, whoever the user is. Lets tests reach the paths where
// the operating system refuses to open a file or directory, also when they run as root.
class DescriptorLimit {
public:
    explicit DescriptorLimit(int spare = 0);
    ~DescriptorLimit();
    DescriptorLimit(const DescriptorLimit&) = delete;
    DescriptorLimit& operator=(const DescriptorLimit&) = delete;

    bool active() const { return m_active; }

    // Whether this build carries the sanitizers. Their runtime checks probe memory through a
    // pipe, which cannot be opened while the limit holds, and then report false errors; tests
    // that make the code under test fail under the limit are skipped in such builds.
    static constexpr bool sanitized() {
#if defined(__SANITIZE_ADDRESS__)
        return true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(undefined_behavior_sanitizer)
        return true;
#else
        return false;
#endif
#else
        return false;
#endif
    }

private:
    bool m_active = false;
    unsigned long long m_previousSoftLimit = 0;
};
