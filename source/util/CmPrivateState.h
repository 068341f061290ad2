// What the library keeps in the private room of an object; internal.
#ifndef CM_PRIVATE_STATE_H
#define CM_PRIVATE_STATE_H

#include <new>
#include <utility>

#include "CmPrivateRoom.h"

namespace UTIL_NS {

// The owner's constructor makes the state, its destructor destroys it by End; in between Of finds
// it.
struct CCmPrivateRoom {
    template <class StateType, size_t SIZE, class... Arguments>
    static StateType& Make(CCmPrivateRoomT<StateType, SIZE>& aRoom, Arguments&&... aArguments) {
        static_assert(sizeof(StateType) <= SIZE, "the room is part of the binary interface");
        static_assert(alignof(StateType) <= alignof(CCmPrivateRoomT<StateType, SIZE>));
        return *new (aRoom.m_abyRoom) StateType(std::forward<Arguments>(aArguments)...);
    }
    template <class StateType, size_t SIZE>
    static StateType& Of(CCmPrivateRoomT<StateType, SIZE>& aRoom) {
        return *std::launder(reinterpret_cast<StateType*>(aRoom.m_abyRoom));
    }
    template <class StateType, size_t SIZE>
    static const StateType& Of(const CCmPrivateRoomT<StateType, SIZE>& aRoom) {
        return *std::launder(reinterpret_cast<const StateType*>(aRoom.m_abyRoom));
    }
    template <class StateType, size_t SIZE>
    static void End(CCmPrivateRoomT<StateType, SIZE>& aRoom) {
        Of(aRoom).~StateType();
    }
};

}  // namespace UTIL_NS

#endif  // CM_PRIVATE_STATE_H
