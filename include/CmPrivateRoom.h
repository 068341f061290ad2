/// Room inside an object for what the library keeps there.
/// \file
#ifndef CM_PRIVATE_ROOM_H
#define CM_PRIVATE_ROOM_H

#include <cstddef>

namespace UTIL_NS {

/// Holds a StateType, which hosts see the name of and nothing else. Its size is larger than what is
/// kept there, so that later versions may keep more without any layout changing.
template <class StateType, size_t SIZE>
class CCmPrivateRoomT {
  public:
    CCmPrivateRoomT() = default;
    CCmPrivateRoomT(const CCmPrivateRoomT&) = delete;
    CCmPrivateRoomT& operator=(const CCmPrivateRoomT&) = delete;

  private:
    friend struct CCmPrivateRoom;  // internal

    alignas(std::max_align_t) unsigned char m_abyRoom[SIZE];
};

}  // namespace UTIL_NS

#endif  // CM_PRIVATE_ROOM_H
