/**
 * @file
 * The failure of a semaphore call: "<call> [errno:<number>] <system text>",
 * for example "sem_wait [errno:22] Invalid argument".
 */
#ifndef SEMAPHORE_COUNTINGSEMAPHOREEXCEPTION_H
#define SEMAPHORE_COUNTINGSEMAPHOREEXCEPTION_H

#include <exception>
#include <string>

#pragma GCC visibility push(default)

class CountingSemaphoreException : public std::exception {
public:
    CountingSemaphoreException(const std::string& call, int err);
    const char* what() const noexcept override;

private:
    std::string mMessage;
};

#pragma GCC visibility pop
#endif
