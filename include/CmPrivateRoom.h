/// Room inside an object for what the library keeps there.
/// \file
#ifndef CM_PRIVATE_ROOM_H
#define CM_PRIVATE_ROOM_H

#include <cstddef>

namespace UTIL_NS {

/// Room for a StateType, of which hosts see nothing but the name. It is larger than that, so that
/// later versions of the library may keep more in an object whose layout stays as it is.
template <class StateType, size_t SIZE>
class CCmPrivateRoomT {
  public:
    /// Leaves the bytes as they are: the library makes the state in them.
    CCmPrivateRoomT() = default;
    CCmPrivateRoomT(const CCmPrivateRoomT&) = delete;
    CCmPrivateRoomT& operator=(const CCmPrivateRoomT&) = delete;

  private:
    friend struct CCmPrivateRoom;  // internal

    alignas(std::max_align_t) unsigned char m_abyRoom[SIZE];
};

}  // namespace UTIL_NS

#endif  // CM_PRIVATE_ROOM_H
