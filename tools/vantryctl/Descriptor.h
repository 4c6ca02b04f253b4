#ifndef VANTRY_TOOLS_DESCRIPTOR_H
#define VANTRY_TOOLS_DESCRIPTOR_H

#include <unistd.h>

// A file descriptor, closed at the end; one below 0 is none.
class CDescriptor {
public:
    explicit CDescriptor(int number) : m_number(number) {}
    CDescriptor(const CDescriptor&) = delete;
    CDescriptor& operator=(const CDescriptor&) = delete;
    ~CDescriptor() {
        if (m_number >= 0) {
            close(m_number);
        }
    }
    int Number() const { return m_number; }

private:
    int m_number;
};

#endif
