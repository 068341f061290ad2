#ifndef CM_PORT_H
#define CM_PORT_H

#endif  // CM_PORT_H
