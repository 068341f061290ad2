// CCmT120Trace: the trace facility, and the formatter that composes trace lines.
#ifndef CM_T120_TRACE_H
#define CM_T120_TRACE_H

#include "CmBase.h"

namespace UTIL_NS {

class CM_UTIL_EXPORT CCmT120Trace {
  public:
    // Manipulator of Text_Formator: 0 turns hexadecimal output of the next integer on, 1 turns
    // it off, any other value changes nothing.
    enum Ordix : int { ORDIX_HEX = 0, ORDIX_DEC = 1 };

    // Builds one text in a buffer of the caller's. Never allocates and never fails: what does
    // not fit is dropped. The last 96 bytes of the buffer are never written and stay zero, so
    // the text is always terminated and a caller may append a suffix; a buffer of 96 bytes or
    // fewer takes nothing. One thread at a time.
    class CM_UTIL_EXPORT Text_Formator {
      public:
        // aBuffer: of aSize bytes, zero-filled here; must outlive the formatter, which does not
        // own it. A null buffer takes nothing.
        Text_Formator(char* aBuffer, unsigned long aSize);
        virtual ~Text_Formator();
        Text_Formator(const Text_Formator&) = delete;
        Text_Formator& operator=(const Text_Formator&) = delete;

        // Starts afresh on the same buffer: position 0, hex flag off, all bytes zero.
        void reset();

        operator char*() { return m_pBuffer; }
        // Bytes written so far.
        unsigned long tell() const { return m_ulPosition; }

        void set_hex_flag(unsigned char aFlag) { m_bHex = aFlag; }
        unsigned char get_hex_flag() const { return m_bHex; }

        // A character prints as its number. Integers honour the hex flag and clear it.
        Text_Formator& operator<<(char aValue);
        Text_Formator& operator<<(unsigned char aValue);
        Text_Formator& operator<<(short aValue);
        Text_Formator& operator<<(unsigned short aValue);
        Text_Formator& operator<<(int aValue);
        Text_Formator& operator<<(unsigned int aValue);
        Text_Formator& operator<<(long aValue);
        Text_Formator& operator<<(unsigned long aValue);
        // Always decimal, by xtoa_yrk (so 0 prints as -0); leaves the hex flag as it is.
        Text_Formator& operator<<(long long aValue);
        // "%f"; leaves the hex flag as it is.
        Text_Formator& operator<<(float aValue);
        Text_Formator& operator<<(double aValue);
        // Null appends nothing.
        Text_Formator& operator<<(char const* aText);
        Text_Formator& operator<<(CCmString const& aText);
        // "0x" and the address in hexadecimal; clears the hex flag.
        Text_Formator& operator<<(void* aPointer);
        Text_Formator& operator<<(Ordix aOrdix);

      private:
        void advance(const char* aText, unsigned long aLength);
        void append_number(unsigned long aMagnitude, bool aNegative);

        char* m_pBuffer;
        unsigned long m_ulSize;
        unsigned long m_ulPosition;
        unsigned char m_bHex;
    };
};

// Makes the trace facility read its settings anew.
CM_UTIL_EXPORT void refresh_trace_config();

}  // namespace UTIL_NS

#endif  // CM_T120_TRACE_H
