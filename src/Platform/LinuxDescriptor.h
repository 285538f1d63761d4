#pragma once

#include <unistd.h>

#include <utility>

/** An open descriptor, closed when it goes; empty when negative. */
class LinuxDescriptor {
public:
    LinuxDescriptor() = default;
    explicit LinuxDescriptor(int number) : _number(number) {}
    LinuxDescriptor(const LinuxDescriptor&) = delete;
    LinuxDescriptor& operator=(const LinuxDescriptor&) = delete;
    LinuxDescriptor(LinuxDescriptor&& other) noexcept : _number(std::exchange(other._number, -1)) {}
    LinuxDescriptor& operator=(LinuxDescriptor&& other) noexcept
    {
        std::swap(_number, other._number);
        return *this;
    }
    ~LinuxDescriptor()
    {
        if (_number >= 0) {
            // Nothing is left to write back: who needs that synchronizes first and hears of it.
            close(_number);
        }
    }

    explicit operator bool() const { return _number >= 0; }
    [[nodiscard]] int number() const { return _number; }

private:
    int _number = -1;
};
