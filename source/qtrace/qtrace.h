// qtrace: the trace library that kelto_util delivers its text to.
#ifndef QTRACE_H
#define QTRACE_H

#define QTRACE_EXPORT __attribute__((visibility("default")))

extern "C" {

// The delivery threshold: a text is delivered only when its level is at least this value.
QTRACE_EXPORT unsigned long _getTraceLevel();

// Takes one piece of trace text. aPrefix: null when the text comes whole, otherwise 256 zeroed
// bytes, and aText is one piece, of at most 2047 characters, of a longer text.
QTRACE_EXPORT void YRKTRACERAWA(unsigned long aLevel, const char* aModule, char* aPrefix,
                                const char* aText);

}  // extern "C"

#endif  // QTRACE_H
