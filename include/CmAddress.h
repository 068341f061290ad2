/// Addresses as text: transport addresses, names, numbers, and the local host's own. For addresses
/// that nobody vouches for: CmStrict.h; to resolve without blocking: CmResolver.h.
///
/// IPv4 only. Names are resolved by the system's gethostbyname; the first IPv4 address counts,
/// and a name without one counts as not resolved. Resolution blocks. Nothing here locks:
/// whatever resolves a name or returns a shared buffer must be serialised by the caller. The list
/// of interface addresses is in CmUtilMisc.h, the probes of address families in CmUtilClasses.h.
/// \file
#ifndef CM_ADDRESS_H
#define CM_ADDRESS_H

#include "CmBase.h"

namespace UTIL_NS {

/// Bytes of a buffer for a dotted address with its terminator.
constexpr unsigned long CM_IP_TEXT_SIZE = 16;

/// What get_local_ip found; empty until it has been called.
extern CM_UTIL_EXPORT char g_local_ip[CM_IP_TEXT_SIZE];

/// Splits "scheme://host:port" of at most 64 characters; 1 on success. A host that is a name is
/// resolved. Texts are cut to fit their buffers (sizes with the terminator; nothing is written
/// to one of size 0). The port is a decimal number, of which the low 16 bits count; 0 when there
/// is no number, and one that does not fit in a long counts as LONG_MAX (LONG_MIN if negative),
/// giving 65535 (0). 0 when "://", the ':' in front of the port or what should follow it is
/// missing, the host cannot be resolved or an argument is null; outputs of the steps before the
/// failing one keep what was written.
CM_UTIL_EXPORT int transport_address_parse(char* aAddr, char* aScheme, int aSchemeSize, char* aIp,
                                           int aIpSize, unsigned short* aPort);

/// 1 when all characters are digits, '.', blanks and tabs (so also for an empty text), else 0. A
/// null is traced as an error and gives 0.
CM_UTIL_EXPORT int is_ip_address(char* aStr);

/// Resolves aName into aIp, of CM_IP_TEXT_SIZE bytes. A null argument and a name that does not
/// resolve are traced as errors and leave aIp as it is.
CM_UTIL_EXPORT void resolve_2_ip(char* aName, char* aIp);

/// The same without a trace line; returns aIp, or null when the name does not resolve or an
/// argument is null.
CM_UTIL_EXPORT char* resolve_to_ip(char* aName, char* aIp);

/// The number of a dotted address, first octet most significant: a * 2^24 + b * 2^16 + c * 2^8 +
/// d, in 64 bits. Blanks and tabs may stand around the address. Any other text is resolved first. 0
/// when that fails, when there are fewer than four numbers or for null. Octets are not tested for
/// their range; one above INT_MAX counts as INT_MAX.
CM_UTIL_EXPORT unsigned long ip_2_id(char* aAddr);

/// The dotted address of the low 32 bits of aId, in a static buffer that the next call overwrites.
CM_UTIL_EXPORT char* id_2_ip(unsigned long aId);

/// The first address of the host's own name, found on the first call and then remembered in
/// g_local_ip, which it returns. "0.0.0.0" when the host has no name or it does not resolve.
CM_UTIL_EXPORT char* get_local_ip();

/// The same found anew by each call, in a static buffer that the next call overwrites;
/// "127.0.0.1" on failure.
CM_UTIL_EXPORT char* get_local_ip_address();

/// Does nothing.
CM_UTIL_EXPORT void output_debug_string(char* aText);

}  // namespace UTIL_NS

#endif  // CM_ADDRESS_H
