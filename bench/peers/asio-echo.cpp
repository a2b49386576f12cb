// A single-threaded raw echo server with Boost.Asio, written the way its
// own echo example is: one session per connection, read then write back.
#include <boost/asio.hpp>

#include <cstdio>
#include <cstdlib>
#include <memory>

using boost::asio::ip::tcp;

class Session : public std::enable_shared_from_this<Session> {
public:
    explicit Session(tcp::socket socket) : socket_(std::move(socket)) {}
    void Start() { Read(); }

private:
    void Read() {
        auto self(shared_from_this());
        socket_.async_read_some(boost::asio::buffer(data_), [this, self](boost::system::error_code ec, std::size_t n) {
            if (!ec) Write(n);
        });
    }
    void Write(std::size_t n) {
        auto self(shared_from_this());
        boost::asio::async_write(socket_, boost::asio::buffer(data_, n),
                                 [this, self](boost::system::error_code ec, std::size_t) {
                                     if (!ec) Read();
                                 });
    }

    tcp::socket socket_;
    char data_[65536];
};

void Accept(tcp::acceptor& acceptor) {
    acceptor.async_accept([&acceptor](boost::system::error_code ec, tcp::socket socket) {
        if (!ec) {
            socket.set_option(tcp::no_delay(true));
            std::make_shared<Session>(std::move(socket))->Start();
        }
        Accept(acceptor);
    });
}

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: peer-asio-echo PORT\n");
        return 2;
    }
    boost::asio::io_context io(1);
    tcp::acceptor acceptor(io, tcp::endpoint(boost::asio::ip::make_address("127.0.0.1"),
                                             static_cast<unsigned short>(std::atoi(argv[1]))));
    Accept(acceptor);
    boost::asio::signal_set signals(io, SIGINT, SIGTERM);
    signals.async_wait([&io](boost::system::error_code, int) { io.stop(); });
    std::printf("peer-asio-echo: listening on 127.0.0.1:%u\n", acceptor.local_endpoint().port());
    std::fflush(stdout);
    io.run();
    return 0;
}
