// errno. The target's own lives beside this system's: it takes over what a call has left there
// whenever the program asks where it lies.
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "Numbers.h"
#include "Supply.h"

namespace kelto_mac {

namespace {

constexpr Pair ERRORS[] = {
    {1, EPERM},
    {2, ENOENT},
    {3, ESRCH},
    {4, EINTR},
    {5, EIO},
    {6, ENXIO},
    {7, E2BIG},
    {8, ENOEXEC},
    {9, EBADF},
    {10, ECHILD},
    {11, EDEADLK},
    {12, ENOMEM},
    {13, EACCES},
    {14, EFAULT},
    {15, ENOTBLK},
    {16, EBUSY},
    {17, EEXIST},
    {18, EXDEV},
    {19, ENODEV},
    {20, ENOTDIR},
    {21, EISDIR},
    {22, EINVAL},
    {23, ENFILE},
    {24, EMFILE},
    {25, ENOTTY},
    {26, ETXTBSY},
    {27, EFBIG},
    {28, ENOSPC},
    {29, ESPIPE},
    {30, EROFS},
    {31, EMLINK},
    {32, EPIPE},
    {33, EDOM},
    {34, ERANGE},
    {35, EAGAIN},
    {36, EINPROGRESS},
    {37, EALREADY},
    {38, ENOTSOCK},
    {39, EDESTADDRREQ},
    {40, EMSGSIZE},
    {41, EPROTOTYPE},
    {42, ENOPROTOOPT},
    {43, EPROTONOSUPPORT},
    {44, ESOCKTNOSUPPORT},
    {45, ENOTSUP},
    {46, EPFNOSUPPORT},
    {47, EAFNOSUPPORT},
    {48, EADDRINUSE},
    {49, EADDRNOTAVAIL},
    {50, ENETDOWN},
    {51, ENETUNREACH},
    {52, ENETRESET},
    {53, ECONNABORTED},
    {54, ECONNRESET},
    {55, ENOBUFS},
    {56, EISCONN},
    {57, ENOTCONN},
    {58, ESHUTDOWN},
    {59, ETOOMANYREFS},
    {60, ETIMEDOUT},
    {61, ECONNREFUSED},
    {62, ELOOP},
    {63, ENAMETOOLONG},
    {64, EHOSTDOWN},
    {65, EHOSTUNREACH},
    {66, ENOTEMPTY},
    {68, EUSERS},
    {69, EDQUOT},
    {70, ESTALE},
    {71, EREMOTE},
    {77, ENOLCK},
    {78, ENOSYS},
    {84, EOVERFLOW},
    {89, ECANCELED},
    {90, EIDRM},
    {91, ENOMSG},
    {92, EILSEQ},
    {93, ENODATA},
    {94, EBADMSG},
    {95, EMULTIHOP},
    {97, ENOLINK},
    {98, ENOSR},
    {99, ENOSTR},
    {100, EPROTO},
    {101, ETIME},
    {102, EOPNOTSUPP},
    {104, ENOTRECOVERABLE},
    {105, EOWNERDEAD},
};
constexpr int UNKNOWN_ERROR = 107;  // beyond the target's last

__thread int s_nError = 0;

// This system's errno is zero unless a call has failed since the last look.
int* Error() {
    if (errno != 0) {
        s_nError = ErrorToTarget(errno);
        errno = 0;
    }
    return &s_nError;
}

char* StrError(int aError) {
    return strerror(ErrorToHost(aError));
}

// The portable one, which returns an error code.
int StrErrorR(int aError, char* aBuffer, size_t aLength) {
    return snprintf(aBuffer, aLength, "%s", strerror(ErrorToHost(aError))) <
                   static_cast<long>(aLength)
               ? 0
               : 34;
}

}  // namespace

int ErrorToTarget(int aHost) {
    if (aHost == 0) {
        return 0;
    }
    const int nTarget = ToTarget(ERRORS, aHost);
    return nTarget == -1 ? UNKNOWN_ERROR : nTarget;
}

int ErrorToHost(int aTarget) {
    const int nHost = aTarget == 0 ? 0 : ToHost(ERRORS, aTarget);
    return nHost == -1 ? aTarget + 1000 : nHost;
}

void SupplyErrors() {
    Supply({
        {"___error", Address(&Error)},
        {"_strerror", Address(&StrError)},
        {"_strerror_r", Address(&StrErrorR)},
    });
}

}  // namespace kelto_mac
