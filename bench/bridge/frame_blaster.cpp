// frame_blaster <port> <clients> <frames> <payload bytes>
//
// A load generator that costs the machine almost nothing per message, so the server under
// test, not the client, sets the pace: every connection does the opening handshake, then
// writes its frames (masked text frames, as a browser sends them) from one prepared buffer in
// large writes, and the run ends at the first "done" text frame the server sends back.
// Prints "elapsed_ms <ms>", like load_client.js. Plain POSIX sockets; no WebSocket library.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {
constexpr int kTimeoutMs = 120000;
constexpr unsigned char kMask[4] = {0x37, 0xfa, 0x21, 0x3d};

[[noreturn]] void fail(const std::string &why)
{
    std::fprintf(stderr, "frame_blaster: %s\n", why.c_str());
    std::exit(3);
}

std::string maskedTextFrame(std::size_t size)
{
    std::string frame;
    frame += char(0x81);
    if (size < 126) {
        frame += char(0x80 | size);
    } else if (size < 65536) {
        frame += char(0x80 | 126);
        frame += char(size >> 8);
        frame += char(size & 0xff);
    } else {
        frame += char(0x80 | 127);
        for (int shift = 56; shift >= 0; shift -= 8)
            frame += char((size >> shift) & 0xff);
    }
    frame.append(reinterpret_cast<const char *>(kMask), 4);
    for (std::size_t i = 0; i < size; ++i)
        frame += char('m' ^ kMask[i % 4]);
    return frame;
}

int connectAndUpgrade(int port)
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
        fail(std::string("connect: ") + std::strerror(errno));
    const int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    const std::string request = "GET /Quellon/ HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) +
                                "\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                                "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n";
    if (write(fd, request.data(), request.size()) != static_cast<ssize_t>(request.size()))
        fail("handshake write failed");
    std::string answer;
    char c;
    while (answer.find("\r\n\r\n") == std::string::npos) {
        if (read(fd, &c, 1) != 1)
            fail("handshake answer cut short: " + answer);
        answer += c;
    }
    if (answer.compare(0, 12, "HTTP/1.1 101") != 0)
        fail("handshake refused: " + answer);
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    return fd;
}

// True once a complete unmasked text frame reading "done" is in `in`; other frames are skipped.
bool sawDone(std::string &in)
{
    for (;;) {
        if (in.size() < 2)
            return false;
        std::size_t length = static_cast<unsigned char>(in[1]) & 0x7f, header = 2;
        if (length == 126) {
            if (in.size() < 4)
                return false;
            length = (std::size_t(static_cast<unsigned char>(in[2])) << 8) | static_cast<unsigned char>(in[3]);
            header = 4;
        }
        if (in.size() < header + length)
            return false;
        const bool done = (in[0] & 0x0f) == 1 && in.compare(header, length, "done") == 0;
        in.erase(0, header + length);
        if (done)
            return true;
    }
}
} // namespace

int main(int argc, char **argv)
{
    if (argc != 5)
        fail("usage: frame_blaster <port> <clients> <frames> <payload bytes>");
    const int port = std::atoi(argv[1]), clients = std::atoi(argv[2]), frames = std::atoi(argv[3]);
    const std::size_t size = std::strtoul(argv[4], nullptr, 10);
    std::string all;
    const std::string frame = maskedTextFrame(size);
    all.reserve(frame.size() * std::size_t(frames));
    for (int i = 0; i < frames; ++i)
        all += frame;

    std::vector<int> fds;
    for (int i = 0; i < clients; ++i)
        fds.push_back(connectAndUpgrade(port));
    std::vector<std::size_t> sent(fds.size(), 0);
    std::vector<std::string> received(fds.size());
    const auto start = std::chrono::steady_clock::now();
    for (;;) {
        std::vector<pollfd> polls;
        for (std::size_t i = 0; i < fds.size(); ++i)
            polls.push_back({fds[i], short(POLLIN | (sent[i] < all.size() ? POLLOUT : 0)), 0});
        if (poll(polls.data(), polls.size(), kTimeoutMs) <= 0)
            fail("timed out");
        for (std::size_t i = 0; i < fds.size(); ++i) {
            if ((polls[i].revents & POLLOUT) && sent[i] < all.size()) {
                const ssize_t n = write(fds[i], all.data() + sent[i], all.size() - sent[i]);
                if (n > 0)
                    sent[i] += std::size_t(n);
                else if (errno != EAGAIN)
                    fail(std::string("write: ") + std::strerror(errno));
            }
            if (polls[i].revents & (POLLIN | POLLHUP | POLLERR)) {
                char buffer[4096];
                const ssize_t n = read(fds[i], buffer, sizeof buffer);
                if (n == 0 || (n < 0 && errno != EAGAIN))
                    fail("the server closed a connection");
                if (n > 0) {
                    received[i].append(buffer, std::size_t(n));
                    if (sawDone(received[i])) {
                        const auto ms =
                            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start);
                        std::printf("elapsed_ms %.1f\n", ms.count());
                        return 0;
                    }
                }
            }
        }
    }
}
