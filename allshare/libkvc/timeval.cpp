#include "libkvc/timeval.h"

#include <cstdio>
#include <ctime>

namespace {

constexpr uint32_t kUsecPerSec = 1000000;

bool normalised(const TIMEVAL* tv)
{
    return tv->tv_usec < kUsecPerSec;
}

TIMEVAL* setZero(TIMEVAL* tv)
{
    tv->tv_sec = 0;
    tv->tv_usec = 0;
    return tv;
}

} // namespace

void TimeVal_init(TIMEVAL* pTimeVal, uint32_t iSec, uint32_t iUSec)
{
    pTimeVal->tv_sec = iSec + iUSec / kUsecPerSec;
    pTimeVal->tv_usec = iUSec % kUsecPerSec;
}

int TimeVal_cmp(const TIMEVAL* pTv1, const TIMEVAL* pTv2)
{
    if (pTv1->tv_sec != pTv2->tv_sec) {
        return pTv1->tv_sec < pTv2->tv_sec ? -1 : 1;
    }
    if (pTv1->tv_usec != pTv2->tv_usec) {
        return pTv1->tv_usec < pTv2->tv_usec ? -1 : 1;
    }
    return 0;
}

TIMEVAL* TimeVal_add(const TIMEVAL* pTv1, const TIMEVAL* pTv2, TIMEVAL* pTvResult)
{
    if (!normalised(pTv1) || !normalised(pTv2)) {
        std::fputs("TimeVal_add: Error: USEC not normalized\n", stderr);
        return setZero(pTvResult);
    }
    uint32_t usec = pTv1->tv_usec + pTv2->tv_usec;
    uint32_t carry = 0;
    if (usec >= kUsecPerSec) {
        usec -= kUsecPerSec;
        carry = 1;
    }
    pTvResult->tv_sec = pTv1->tv_sec + pTv2->tv_sec + carry;
    pTvResult->tv_usec = usec;
    return pTvResult;
}

TIMEVAL* TimeVal_sub(const TIMEVAL* pTv1, const TIMEVAL* pTv2, TIMEVAL* pTvResult)
{
    // There are no negative times; this check comes first on purpose, so an
    // earlier-than result is silent even for unnormalised operands.
    if (TimeVal_cmp(pTv1, pTv2) < 0) {
        return setZero(pTvResult);
    }
    if (!normalised(pTv1) || !normalised(pTv2)) {
        std::fputs("TimeVal_sub: Error: USEC not normalized\n", stderr);
        return setZero(pTvResult);
    }
    uint32_t sec = pTv1->tv_sec - pTv2->tv_sec;
    uint32_t usec = pTv1->tv_usec;
    if (usec < pTv2->tv_usec) {
        usec += kUsecPerSec;
        sec -= 1;
    }
    pTvResult->tv_sec = sec;
    pTvResult->tv_usec = usec - pTv2->tv_usec;
    return pTvResult;
}

TIMEVAL* TimeVal_copy(const TIMEVAL* pSrc, TIMEVAL* pDst)
{
    pDst->tv_sec = pSrc->tv_sec;
    pDst->tv_usec = pSrc->tv_usec;
    return pDst;
}

uint32_t TimeVal_toMillis(const TIMEVAL* pTimeVal)
{
    return pTimeVal->tv_sec * 1000u + pTimeVal->tv_usec / 1000u;
}

TIMEVAL* TimeVal_fromMillis(TIMEVAL* pTimeVal, uint32_t iMillis)
{
    pTimeVal->tv_sec = iMillis / 1000u;
    pTimeVal->tv_usec = (iMillis % 1000u) * 1000u;
    return pTimeVal;
}

namespace {

std::string timestampNow(struct tm* (*convert)(const time_t*, struct tm*))
{
    char buf[20];
    time_t now = time(nullptr);
    struct tm parts {};
    if (!convert(&now, &parts) || strftime(buf, sizeof buf, "%F %T", &parts) == 0) {
        return std::string();
    }
    return std::string(buf);
}

} // namespace

std::string timestamp_UTC_now()
{
    return timestampNow(gmtime_r);
}

std::string timestamp_local_now()
{
    return timestampNow(localtime_r);
}
