/// qtrace: the trace library that kelto_util delivers its text to. A host that brings a trace
/// library of its own links that instead; it supplies _getTraceLevel and YRKTRACERAWA.
///
/// Each text becomes one line. The threads of a process write one line after the other, whatever
/// they go to. Between processes lines stay whole in a file and, up to PIPE_BUF bytes (4096 on
/// Linux, 512 on macOS), in a pipe:
///
///     2026-11-21 09:30:00.125 pid=4711 tid=4715 [MAC] UTIL ERROR: ...
///     2026-11-21 09:30:00.126 pid=4711 tid=4716 thread=net [MAC] UTIL INFO: ...
///
/// Local time with milliseconds, the process, the thread, the module and the text. The thread is
/// the system's number for it, as debuggers show it, and its name where it has one of its own
/// (pthread_setname_np); blanks, control characters and brackets in the name become '_'. A line end
/// within a text is followed by a tab, so that no text can pass for a line of its own; those at its
/// end are dropped.
///
/// Environment, read on first use:
///     QTRACE_LEVEL  the threshold, a decimal number; 0, everything, when missing or no number
///     QTRACE_FILE   the file to append to, created if missing; standard error when missing or when
///                   the file cannot be opened. In a directory that others may write to (its group,
///                   everybody, an owner other than this user and root) it must be no symbolic link
///                   and have no second name
///
/// Any thread may call any function. None throws, changes errno, raises a signal or reports a
/// failure: a line that cannot be written (full disk, closed pipe) is lost, and one for which a
/// non-blocking destination has no room now, too. One that was taken only in part is closed by a
/// line end before the next.
/// \file
#ifndef QTRACE_H
#define QTRACE_H

/// Marks what the library exports.
#define QTRACE_EXPORT __attribute__((visibility("default")))

extern "C" {

/// The delivery threshold: a text is delivered only when its level is at least this value.
QTRACE_EXPORT unsigned long _getTraceLevel();

/// Changes the threshold at run time, from the next text on, for all threads.
QTRACE_EXPORT void qtrace_set_level(unsigned long aLevel);

/// Takes a text, or one piece of a longer one. aPrefix: null when the text comes whole; for a
/// piece 256 zeroed bytes, not used here. A thread's pieces come one after the other; every piece
/// but the last has 2047 characters, the last has fewer, perhaps none. They are held until the
/// last one, and then written as one line. When memory runs out, when a whole text comes in
/// between or when the thread ends, what is held is written as it stands.
QTRACE_EXPORT void YRKTRACERAWA(unsigned long aLevel, const char* aModule, char* aPrefix,
                                const char* aText);

}  // extern "C"

#endif  // QTRACE_H
