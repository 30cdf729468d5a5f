#pragma once

namespace httplib {
class Server;
}

namespace ovalto {

// httplib binds with SO_REUSEPORT, so a second server started on a taken port shares it silently
// and the kernel splits the clients between the two; and it listens with a backlog of 5, which a
// player opening a connection per rendition overflows (the dropped SYN costs a second). Made
// before the server binds, this binds the port alone; `deepen()` after the bind lengthens the queue.
class ExclusivePort {
public:
    explicit ExclusivePort(httplib::Server& server);
    ExclusivePort(const ExclusivePort&) = delete;
    ExclusivePort& operator=(const ExclusivePort&) = delete;

    void deepen() const;

private:
    int socket_ = -1;
};

} // namespace ovalto
