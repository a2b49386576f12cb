// A single-threaded raw echo server with libuv, after its own echo example:
// each read is written back, the buffer freed when the write completes.
#include <uv.h>

#include <cstdio>
#include <cstdlib>

namespace {

struct Write {
    uv_write_t req;
    uv_buf_t buf;
};

void Alloc(uv_handle_t*, size_t suggested, uv_buf_t* buf) {
    buf->base = static_cast<char*>(std::malloc(suggested));
    buf->len = suggested;
}

void Closed(uv_handle_t* handle) { std::free(handle); }

void Written(uv_write_t* req, int) {
    Write* const w = reinterpret_cast<Write*>(req);
    std::free(w->buf.base);
    std::free(w);
}

void Read(uv_stream_t* client, ssize_t n, uv_buf_t const* buf) {
    if (n > 0) {
        Write* const w = static_cast<Write*>(std::malloc(sizeof(Write)));
        w->buf = uv_buf_init(buf->base, static_cast<unsigned int>(n));
        uv_write(&w->req, client, &w->buf, 1, Written);
        return;
    }
    if (n < 0) uv_close(reinterpret_cast<uv_handle_t*>(client), Closed);
    std::free(buf->base);
}

void Connection(uv_stream_t* server, int status) {
    if (status < 0) return;
    uv_tcp_t* const client = static_cast<uv_tcp_t*>(std::malloc(sizeof(uv_tcp_t)));
    uv_tcp_init(server->loop, client);
    if (uv_accept(server, reinterpret_cast<uv_stream_t*>(client)) == 0) {
        uv_tcp_nodelay(client, 1);
        uv_read_start(reinterpret_cast<uv_stream_t*>(client), Alloc, Read);
    } else {
        uv_close(reinterpret_cast<uv_handle_t*>(client), Closed);
    }
}

void Stop(uv_signal_t* handle, int) { uv_stop(handle->loop); }

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: peer-uv-echo PORT\n");
        return 2;
    }
    uv_loop_t* const loop = uv_default_loop();
    uv_tcp_t server;
    uv_tcp_init(loop, &server);
    sockaddr_in addr;
    uv_ip4_addr("127.0.0.1", std::atoi(argv[1]), &addr);
    if (uv_tcp_bind(&server, reinterpret_cast<sockaddr const*>(&addr), 0) != 0 ||
        uv_listen(reinterpret_cast<uv_stream_t*>(&server), 128, Connection) != 0) {
        std::fprintf(stderr, "peer-uv-echo: cannot listen\n");
        return 1;
    }
    uv_signal_t sigint, sigterm;
    uv_signal_init(loop, &sigint);
    uv_signal_start(&sigint, Stop, SIGINT);
    uv_signal_init(loop, &sigterm);
    uv_signal_start(&sigterm, Stop, SIGTERM);
    sockaddr_in bound;
    int len = sizeof bound;
    uv_tcp_getsockname(&server, reinterpret_cast<sockaddr*>(&bound), &len);
    std::printf("peer-uv-echo: listening on 127.0.0.1:%u\n", ntohs(bound.sin_port));
    std::fflush(stdout);
    uv_run(loop, UV_RUN_DEFAULT);
    return 0;
}
