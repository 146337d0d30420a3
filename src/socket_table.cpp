// The socket table.
#include "socket_table.h"

#ifdef lua_h
#error "the socket table must stay free of the interpreter"
#endif

int32_t socktbl[SOCKET_TABLE_SIZE] = {};

int sock_add(int32_t fd) {
    for (int i = 0; i < SOCKET_TABLE_SIZE; ++i) {
        if (socktbl[i] == 0 || socktbl[i] == fd) {
            socktbl[i] = fd;
            return i;
        }
    }
    return -1;
}

int sock_rem(int32_t fd) {
    bool found = false;
    for (int i = 0; i < SOCKET_TABLE_SIZE; ++i) {
        if (socktbl[i] == fd) {
            socktbl[i] = 0;
            found = true;
        }
        if (found && i < SOCKET_TABLE_SIZE - 1) {  // close the gap
            socktbl[i] = socktbl[i + 1];
            socktbl[i + 1] = 0;
        }
        if (socktbl[i] == 0)
            break;
    }
    return found ? 1 : -1;
}
