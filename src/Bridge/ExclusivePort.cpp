#include "Bridge/ExclusivePort.h"

#include <httplib.h>
#include <sys/socket.h>

namespace ovalto {

ExclusivePort::ExclusivePort(httplib::Server& server) {
    server.set_socket_options([this](int socket) {
        int yes = 1;
        ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        socket_ = socket;
    });
}

void ExclusivePort::deepen() const {
    if (socket_ >= 0) ::listen(socket_, SOMAXCONN);
}

} // namespace ovalto
