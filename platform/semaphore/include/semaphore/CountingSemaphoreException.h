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

/** A failed semaphore call (see the file note). */
class CountingSemaphoreException : public std::exception {
public:
    /** Builds the message "<call> [errno:<err>] <system text for err>". */
    CountingSemaphoreException(const std::string& call, int err);
    /** The message; valid as long as the exception. */
    const char* what() const noexcept override;

private:
    std::string mMessage;
};

#pragma GCC visibility pop
#endif
