/// Configuration: profile files, the main configuration file and the names of the process.
///
/// A profile file is plain text of "[section]" headers and "key = value" lines:
///   - Section and key names are compared without regard to ASCII case. Names and values are
///     trimmed of blanks, tabs, CRs and LFs.
///   - A line whose first non-blank character is "#" is a comment; ";" starts none.
///   - A line that holds both "[" and "]" is a section header, even when it also holds "=": a value
///     with both ends its section. Lines before the first header are never matched, and only the
///     first section of a name counts.
///   - A value between two quotes of one kind loses them and is trimmed again.
///   - A line longer than 2047 characters is read as several lines; a NUL ends what is seen of its
///     line.
///
/// Nothing is cached: every look-up reads its file again, so a changed file takes effect at once.
/// A named pipe is read as its writer writes it, which may take its time; without a writer it
/// counts as absent. No thread is cancelled during a look-up. Nothing here fails towards its
/// caller: a file that cannot be read, a missing section or key end in the default, a number that
/// does not parse in 0. Values handed out are always terminated and cut to what their buffer holds;
/// where the caller gives none, to 255 characters.
///
/// A host's own settings are better read by CmConfigReader.h, which tells absent from bad.
///
/// Any thread may look up. What changes the home directory, a file name or g_cur_env is to be
/// called during start-up, before other threads look up.
/// \file
#ifndef CM_CONFIG_H
#define CM_CONFIG_H

#include <cstdio>
#include <cstring>
#include <string_view>

#include "CmBase.h"

namespace UTIL_NS {

/// Bytes of the home directory: 15 characters fit.
constexpr int CM_HOME_DIR_SIZE = 16;
/// The home directory of every path that the library builds; "/tmp/" at first. A host changes it by
/// writing it, its last '/' included, or by CmSetHomeDir; nothing checks what is written. A longer
/// one goes through a symbolic link.
extern CM_UTIL_EXPORT char g_def_kelto_home_dir[CM_HOME_DIR_SIZE];

/// Bytes of g_cur_env.
constexpr int CM_CUR_ENV_SIZE = 512;
/// Written by set_kelto_home_env and init_config, read by nothing: it has no effect on any path.
/// "KELTO_MMP_HOME" at first.
extern CM_UTIL_EXPORT char g_cur_env[CM_CUR_ENV_SIZE];

/// The main configuration file's name below home + "conf/"; "kelto.cfg" at first. It does not end:
/// a look-up made while the program ends reads the file that was named last.
extern CM_UTIL_EXPORT CCmString g_kelto_config_file_name;
/// "rabbitmq-config.xml": the name of a file beside that one, for hosts. It does not end either.
extern CM_UTIL_EXPORT CCmString g_rabbitmq_config_file_name;

// ---- Profile primitives

/// Removes trailing blanks in place; returns the first non-blank character, aStr if it is empty.
CM_UTIL_EXPORT char* trim_string(char* aStr);

/// True when the first non-blank character is "#".
CM_UTIL_EXPORT bool is_comment_line(const char* aLine);

/// Reads aFile from where it stands up to the wanted key. 1 with the value in aOut; 0, with aOut
/// untouched, when it is not found. A value of aOutSize characters or more fills aOut without a
/// terminator.
CM_UTIL_EXPORT int read_init_file(FILE* aFile, const char* aSection, const char* aKey, char* aOut,
                                  int aOutSize);

/// The value as a decimal number.
CM_UTIL_EXPORT int get_int_from_profile(const char* aSection, const char* aKey, int aDefault,
                                        const char* aPath);

/// Writes the value, or else aDefault (null counts as empty), into aOut, cut to aOutSize - 1
/// characters, and returns its length.
CM_UTIL_EXPORT int get_string_from_profile(const char* aSection, const char* aKey,
                                           const char* aDefault, char* aOut, int aOutSize,
                                           const char* aPath);

// ---- The main configuration file

/// 1 with the value in aOut, without one trailing ";". 0 when there is none or it is empty: aOut is
/// then empty. A value of just ";" is found, and empty.
CM_UTIL_EXPORT int get_string_param(const char* aSection, const char* aKey, char* aOut,
                                    int aOutSize);

/// The value as a decimal number; 0 when it is not found. A number too large for a long counts as
/// the nearest long, and of that the low bits are returned, so that 2^63 gives -1.
CM_UTIL_EXPORT int get_int_param(const char* aSection, const char* aKey);
/// The low 16 bits of what get_int_param gives.
CM_UTIL_EXPORT uint16_t get_uint16_param(const char* aSection, const char* aKey);
/// As get_int_param, but read as an unsigned long, of which the low 32 bits are returned.
CM_UTIL_EXPORT uint32_t get_uint32_param(const char* aSection, const char* aKey);

/// 1 when the value equals "TRUE" without regard to case, 0 for any other value ("1", "yes").
CM_UTIL_EXPORT unsigned char get_bool_param(const char* aSection, const char* aKey,
                                            unsigned char aDefault);

// ---- Locations

/// Makes aDir the home directory, with a "/" at its end if it has none. CM_ERROR_INVALID_ARG, with
/// nothing changed: null, empty, or more than CM_HOME_DIR_SIZE - 1 characters with that "/". To be
/// called during start-up.
inline CmResult CmSetHomeDir(const char* aDir) {
    const size_t nLength = aDir != nullptr ? std::strlen(aDir) : 0;
    const bool bSlash = nLength > 0 && aDir[nLength - 1] == '/';
    if (nLength == 0 || nLength + (bSlash ? 0 : 1) >= CM_HOME_DIR_SIZE) {
        return CM_ERROR_INVALID_ARG;
    }
    char szDir[CM_HOME_DIR_SIZE] = {};
    std::string_view(aDir, nLength).copy(szDir, nLength);
    szDir[nLength - (bSlash ? 1 : 0)] = '/';
    std::memcpy(g_def_kelto_home_dir, szDir, sizeof(szDir));
    return CM_OK;
}

/// g_def_kelto_home_dir itself.
CM_UTIL_EXPORT char* get_kelto_home_dir();

/// Copies at most 512 characters of aDir into g_cur_env; exactly 512 leave it unterminated.
CM_UTIL_EXPORT void set_kelto_home_env(const char* aDir);

/// Copies aDir into g_cur_env; does nothing when it is null or longer than 510 characters.
CM_UTIL_EXPORT void init_config(const char* aDir);

/// Sets g_kelto_config_file_name.
CM_UTIL_EXPORT void set_kelto_config_file_name(CCmString const& aName);

/// Bytes of a buffer for the main configuration file's path.
constexpr int CM_CONFIG_PATH_SIZE = 512;
/// Writes the main configuration file's path, home + "conf/" + file name, into aBuffer, of
/// CM_CONFIG_PATH_SIZE bytes. A path that does not fit becomes the empty text.
CM_UTIL_EXPORT void get_config_file_name(char* aBuffer);

/// The main configuration file as an object. It holds nothing; all instances are the same.
class CM_UTIL_EXPORT CCmConfigInitFile {
  public:
    /// Does nothing.
    CCmConfigInitFile();
    /// Does nothing.
    ~CCmConfigInitFile();

    /// Ignores aName and returns CM_OK; SetKeltoConfigFileName changes the file.
    CmResult InitWithFileName(CCmString const& aName);

    /// The value as get_int_param reads it, or aDefault without one.
    int GetIntParam(CCmString const& aSection, CCmString const& aKey, int aDefault);
    /// The value as get_uint32_param reads it, or aDefault without one.
    unsigned int GetDwordParam(CCmString const& aSection, CCmString const& aKey,
                               unsigned int aDefault);
    /// The low 16 bits of the value as get_uint32_param reads it, or aDefault without one.
    unsigned short GetWordParam(CCmString const& aSection, CCmString const& aKey,
                                unsigned short aDefault);
    /// The value, cut to 255 characters, or aDefault without one.
    CCmString GetStringParam(CCmString const& aSection, CCmString const& aKey, CCmString aDefault);
    /// 1 when the value equals "TRUE" without regard to case, 0 for any other value, aDefault
    /// without one.
    signed char GetBoolParam(CCmString const& aSection, CCmString const& aKey,
                             signed char aDefault);

    /// What get_kelto_home_dir returns.
    CCmString GetKeltoHomeDir();
    /// As set_kelto_home_env.
    void SetKeltoHomeEnv(CCmString const& aDir);
    /// Takes effect on every later look-up, and makes the trace facility read its settings anew.
    void SetKeltoConfigFileName(CCmString const& aName);
    /// Leaves aOut as it was.
    void get_rabbitmq_config_file_name(CCmString& aOut);
};

// ---- Names of the executable and the library

/// The running executable's file name as the bytes of its 16-bit characters, so that a plain ASCII
/// name reads as its first character only; trace file names and trace keys rely on it. Empty when
/// the platform cannot tell the name, and asked for again then. Read once; the text stays valid.
CM_UTIL_EXPORT const char* get_exec_name();

/// The part of get_exec_name() after its last "/".
CM_UTIL_EXPORT const char* get_process_name();

/// "util.dll", whatever it is given.
CM_UTIL_EXPORT CCmString getCallerModuleName(const char* aIgnored);

/// Writes a path derived from the running executable's file into aBuffer, of aSize bytes. Returns
/// its length, or 0 when it cannot be had or does not fit.
CM_UTIL_EXPORT int MMP_GetCurrentModuleParentPath(char* aBuffer, int aSize);

}  // namespace UTIL_NS

#endif  // CM_CONFIG_H
