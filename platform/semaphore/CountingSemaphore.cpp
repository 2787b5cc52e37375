#include "semaphore/CountingSemaphore.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

CountingSemaphoreException::CountingSemaphoreException(const std::string& call, int err)
{
    char buf[1024];
    mMessage = call + " [errno:" + std::to_string(err) + "] " + strerror_r(err, buf, sizeof(buf));
}

const char* CountingSemaphoreException::what() const noexcept
{
    return mMessage.c_str();
}

CountingSemaphore::CountingSemaphore(unsigned initial)
{
    if (sem_init(&mSemaphore, 0, initial) != 0) {
        throw CountingSemaphoreException("sem_init", errno);
    }
}

CountingSemaphore::~CountingSemaphore()
{
    if (sem_destroy(&mSemaphore) != 0) {
        CountingSemaphoreException failure("sem_destroy", errno);
        fprintf(stderr, "%s\n", failure.what());
        abort();
    }
}

void CountingSemaphore::acquire(bool retryAndThrow)
{
    while (sem_wait(&mSemaphore) != 0) {
        if (!retryAndThrow) {
            return;  // deliberately as if a token had been taken
        }
        if (errno != EINTR) {
            throw CountingSemaphoreException("sem_wait", errno);
        }
    }
}

void CountingSemaphore::release()
{
    if (sem_post(&mSemaphore) != 0) {
        throw CountingSemaphoreException("sem_post", errno);
    }
}

int CountingSemaphore::getValue() const
{
    int value = 0;
    if (sem_getvalue(&mSemaphore, &value) != 0) {
        throw CountingSemaphoreException("sem_getvalue", errno);
    }
    return value;
}

std::ostream& operator<<(std::ostream& os, const CountingSemaphore& s)
{
    return os << s.getValue();
}
