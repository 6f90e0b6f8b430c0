#include "VL_Socket.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>

namespace Velmora {

Mirel::Result_t SetSockNonBlocking(const int& descriptor) {
    const int flags = fcntl(descriptor, F_GETFL);
    if (flags == -1 || fcntl(descriptor, F_SETFL, flags | O_NONBLOCK) == -1) {
        return Mirel::RESULT_PARAM.WithMessage(strerror(errno));
    }
    return Mirel::RESULT_OK;
}

}  // namespace Velmora
