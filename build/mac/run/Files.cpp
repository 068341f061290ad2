// Files and directories: flags, layouts and locks.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Numbers.h"
#include "Supply.h"
#include "Thread.h"

namespace kelto_mac {

namespace {

constexpr Pair OPEN_FLAGS[] = {
    {0x1, O_WRONLY},        {0x2, O_RDWR},   {0x4, O_NONBLOCK},   {0x8, O_APPEND},
    {0x40, O_ASYNC},        {0x80, O_SYNC},  {0x100, O_NOFOLLOW}, {0x200, O_CREAT},
    {0x400, O_TRUNC},       {0x800, O_EXCL}, {0x20000, O_NOCTTY}, {0x100000, O_DIRECTORY},
    {0x1000000, O_CLOEXEC},
};
constexpr int TARGET_OPEN_FLAGS = 0x1 | 0x2 | 0x4 | 0x8 | 0x40 | 0x80 | 0x100 | 0x200 | 0x400 |
                                  0x800 | 0x20000 | 0x100000 | 0x1000000;

int OpenFlags(int aFlags) {
    if ((aFlags & ~TARGET_OPEN_FLAGS) != 0) {
        Refuse("open with the flags %#x", aFlags);
    }
    return FlagsToHost(OPEN_FLAGS, aFlags);
}

int Open(const char* aPath, int aFlags, ...) {
    va_list arguments;
    va_start(arguments, aFlags);
    const mode_t mode = va_arg(arguments, unsigned);
    va_end(arguments);
    return Cancellable([&] { return open(aPath, OpenFlags(aFlags), mode); });
}

constexpr int TARGET_AT_FDCWD = -2;
constexpr int TARGET_AT_REMOVEDIR = 0x80;

int FolderToHost(int aFolder) {
    return aFolder == TARGET_AT_FDCWD ? AT_FDCWD : aFolder;
}

int OpenAt(int aFolder, const char* aPath, int aFlags, ...) {
    va_list arguments;
    va_start(arguments, aFlags);
    const mode_t mode = va_arg(arguments, unsigned);
    va_end(arguments);
    return Cancellable(
        [&] { return openat(FolderToHost(aFolder), aPath, OpenFlags(aFlags), mode); });
}

int UnlinkAt(int aFolder, const char* aPath, int aFlags) {
    return unlinkat(FolderToHost(aFolder), aPath,
                    (aFlags & TARGET_AT_REMOVEDIR) != 0 ? AT_REMOVEDIR : 0);
}

constexpr Pair SPECIAL_TIMES[] = {{-1, UTIME_NOW}, {-2, UTIME_OMIT}};  // in tv_nsec

int UtimensAt(int aFolder, const char* aPath, const timespec aTimes[2], int aFlags) {
    if (aTimes == nullptr || aFlags != 0) {
        Refuse("utimensat of the present or of a link");
    }
    timespec times[2] = {aTimes[0], aTimes[1]};
    for (timespec& time : times) {
        time.tv_nsec =
            time.tv_nsec < 0 ? ToHost(SPECIAL_TIMES, static_cast<int>(time.tv_nsec)) : time.tv_nsec;
    }
    return utimensat(FolderToHost(aFolder), aPath, times, 0);
}

// ---- fcntl

struct TargetFlock {
    int64_t l_start;
    int64_t l_len;
    int32_t l_pid;
    int16_t l_type;
    int16_t l_whence;
};
static_assert(sizeof(TargetFlock) == 24, "the target's size");

constexpr Pair LOCK_TYPES[] = {{1, F_RDLCK}, {2, F_UNLCK}, {3, F_WRLCK}};
constexpr Pair LOCK_COMMANDS[] = {{7, F_GETLK}, {8, F_SETLK}, {9, F_SETLKW}};
constexpr Pair PLAIN_COMMANDS[] = {{0, F_DUPFD}, {1, F_GETFD}, {2, F_SETFD}, {67, F_DUPFD_CLOEXEC}};
constexpr int TARGET_F_GETFL = 3;
constexpr int TARGET_F_SETFL = 4;
constexpr int TARGET_F_PREALLOCATE = 42;

struct TargetFstore {
    uint32_t fst_flags;
    int32_t fst_posmode;
    int64_t fst_offset;
    int64_t fst_length;
    int64_t fst_bytesalloc;
};
static_assert(sizeof(TargetFstore) == 32, "the target's size");

// From the end of the file on, all or nothing; its size stays.
int Preallocate(int aFile, TargetFstore* aStore) {
    if (aStore->fst_flags != 4 || aStore->fst_posmode != 3 || aStore->fst_offset != 0) {
        Refuse("preallocate in another way");
    }
    const off_t end = lseek(aFile, 0, SEEK_END);
    const int rv = fallocate(aFile, FALLOC_FL_KEEP_SIZE, end, aStore->fst_length);
    aStore->fst_bytesalloc = rv == 0 ? aStore->fst_length : 0;
    return rv;
}

int FcntlLock(int aFile, int aCommand, TargetFlock* aLock) {
    struct flock lock = {};
    lock.l_start = aLock->l_start;
    lock.l_len = aLock->l_len;
    lock.l_type = static_cast<short>(ToHost(LOCK_TYPES, aLock->l_type));
    lock.l_whence = aLock->l_whence;
    const int nResult = Cancellable([&] { return fcntl(aFile, aCommand, &lock); });
    if (nResult == 0 && aCommand == F_GETLK) {
        *aLock = {lock.l_start, lock.l_len, lock.l_pid,
                  static_cast<int16_t>(ToTarget(LOCK_TYPES, lock.l_type)), lock.l_whence};
    }
    return nResult;
}

int Fcntl(int aFile, int aCommand, ...) {
    va_list arguments;
    va_start(arguments, aCommand);
    void* const pArgument = va_arg(arguments, void*);
    va_end(arguments);
    const int nArgument = static_cast<int>(reinterpret_cast<intptr_t>(pArgument));
    if (ToHost(LOCK_COMMANDS, aCommand) != -1) {
        return FcntlLock(aFile, ToHost(LOCK_COMMANDS, aCommand),
                         static_cast<TargetFlock*>(pArgument));
    }
    if (ToHost(PLAIN_COMMANDS, aCommand) != -1) {
        return fcntl(aFile, ToHost(PLAIN_COMMANDS, aCommand), nArgument);
    }
    if (aCommand == TARGET_F_PREALLOCATE) {
        return Preallocate(aFile, static_cast<TargetFstore*>(pArgument));
    }
    if (aCommand == TARGET_F_GETFL) {
        const int nFlags = fcntl(aFile, F_GETFL);
        return nFlags == -1 ? -1 : FlagsToTarget(OPEN_FLAGS, nFlags);
    }
    if (aCommand == TARGET_F_SETFL) {
        return fcntl(aFile, F_SETFL, FlagsToHost(OPEN_FLAGS, nArgument));
    }
    errno = EINVAL;
    return -1;
}

// ---- stat

struct TargetStat {
    int32_t st_dev;
    uint16_t st_mode;
    uint16_t st_nlink;
    uint64_t st_ino;
    uint32_t st_uid;
    uint32_t st_gid;
    int32_t st_rdev;
    timespec accessed;
    timespec modified;
    timespec changed;
    timespec born;
    int64_t st_size;
    int64_t st_blocks;
    int32_t st_blksize;
    uint32_t st_flags;
    uint32_t st_gen;
    int32_t reserved[5];
};
static_assert(sizeof(TargetStat) == 144, "the target's size");

int Convert(int aResult, const struct stat& aHost, TargetStat* aTarget) {
    if (aResult == 0) {
        *aTarget = {};
        aTarget->st_dev = static_cast<int32_t>(aHost.st_dev);
        aTarget->st_mode = static_cast<uint16_t>(aHost.st_mode);
        aTarget->st_nlink = static_cast<uint16_t>(aHost.st_nlink);
        aTarget->st_ino = aHost.st_ino;
        aTarget->st_uid = aHost.st_uid;
        aTarget->st_gid = aHost.st_gid;
        aTarget->st_rdev = static_cast<int32_t>(aHost.st_rdev);
        aTarget->accessed = aHost.st_atim;
        aTarget->modified = aHost.st_mtim;
        aTarget->changed = aHost.st_ctim;
        aTarget->born = aHost.st_ctim;
        aTarget->st_size = aHost.st_size;
        aTarget->st_blocks = aHost.st_blocks;
        aTarget->st_blksize = static_cast<int32_t>(aHost.st_blksize);
    }
    return aResult;
}

int Stat(const char* aPath, TargetStat* aStat) {
    struct stat host;
    return Convert(stat(aPath, &host), host, aStat);
}

int Lstat(const char* aPath, TargetStat* aStat) {
    struct stat host;
    return Convert(lstat(aPath, &host), host, aStat);
}

int Fstat(int aFile, TargetStat* aStat) {
    struct stat host;
    return Convert(fstat(aFile, &host), host, aStat);
}

// ---- Directories

struct TargetDirent {
    uint64_t d_ino;
    uint64_t d_seekoff;
    uint16_t d_reclen;
    uint16_t d_namlen;
    uint8_t d_type;
    char d_name[1024];
};

// The entry is the thread's: it lasts until the next call, as one of the directory would.
TargetDirent* ReadDir(DIR* aDirectory) {
    static __thread TargetDirent s_entry;
    const dirent* const pEntry = readdir(aDirectory);
    if (pEntry == nullptr) {
        return nullptr;
    }
    const size_t nLength = strlen(pEntry->d_name);
    s_entry = {};
    s_entry.d_ino = pEntry->d_ino;
    s_entry.d_reclen = sizeof(s_entry);
    s_entry.d_namlen = static_cast<uint16_t>(nLength);
    s_entry.d_type = pEntry->d_type;
    memcpy(s_entry.d_name, pEntry->d_name, nLength + 1);
    return &s_entry;
}

char* RealPath(const char* aPath, char* aResolved) {
    return realpath(aPath, aResolved);
}

}  // namespace

void SupplyFiles() {
    Supply({
        {"_open", Address(&Open)},
        {"_openat", Address(&OpenAt)},
        {"_utimensat", Address(&UtimensAt)},
        {"_unlinkat", Address(&UnlinkAt)},
        {"_read", Address(&Passing<&read>::Call)},
        {"_write", Address(&Passing<&write>::Call)},
        {"_pread", Address(&Passing<&pread>::Call)},
        {"_pwrite", Address(&Passing<&pwrite>::Call)},
        {"_close", Address(&Passing<&close>::Call)},
        {"_poll", Address(&Passing<&poll>::Call)},
        {"_fcntl", Address(&Fcntl)},
        {"_stat$INODE64", Address(&Stat)},
        {"_lstat$INODE64", Address(&Lstat)},
        {"_fstat$INODE64", Address(&Fstat)},
        {"_opendir$INODE64", Address(&opendir)},
        {"_fdopendir$INODE64", Address(&fdopendir)},
        {"_readdir$INODE64", Address(&ReadDir)},
        {"_closedir", Address(&closedir)},
        {"_realpath$DARWIN_EXTSN", Address(&RealPath)},
    });
}

}  // namespace kelto_mac
