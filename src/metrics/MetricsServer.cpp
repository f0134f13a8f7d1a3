#include "MetricsServer.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <prometheus/text_serializer.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <sstream>
#include <stdexcept>

namespace {

constexpr int kRequestMillis = 5000;
constexpr std::size_t kRequestBytes = 8192;

// Writes all of text to fd; false when the client went away.
bool writeAll(int fd, const std::string& text) {
  for (std::size_t done = 0; done < text.size();) {
    const ssize_t n = ::send(fd, text.data() + done, text.size() - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

std::string response(const char* status, const char* type, const std::string& body) {
  return std::string("HTTP/1.0 ") + status + "\r\nContent-Type: " + type +
         "\r\nContent-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" +
         body;
}

}  // namespace

MetricsServer::MetricsServer(const std::string& address,
                             std::shared_ptr<prometheus::Collectable> collectable)
    : collectable_(std::move(collectable)) {
  const std::string bind = bindAddress(address);
  const std::size_t colon = bind.rfind(':');
  host_ = bind.substr(0, colon);
  const std::string name = host_.front() == '[' ? host_.substr(1, host_.size() - 2) : host_;
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  if (const int e = ::getaddrinfo(name.c_str(), bind.substr(colon + 1).c_str(), &hints, &found))
    throw std::runtime_error("cannot serve metrics on " + bind + ": " + ::gai_strerror(e));
  std::string problem = "no address";
  for (addrinfo* a = found; a && listener_ < 0; a = a->ai_next) {
    const int fd = ::socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol);
    const int on = 1;
    if (fd >= 0 && ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
        ::bind(fd, a->ai_addr, a->ai_addrlen) == 0 && ::listen(fd, 16) == 0) {
      listener_ = fd;
      break;
    }
    problem = std::strerror(errno);
    if (fd >= 0) ::close(fd);
  }
  ::freeaddrinfo(found);
  if (listener_ < 0) throw std::runtime_error("cannot serve metrics on " + bind + ": " + problem);
  sockaddr_storage bound{};
  socklen_t length = sizeof bound;
  ::getsockname(listener_, reinterpret_cast<sockaddr*>(&bound), &length);
  port_ = ntohs(bound.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6&>(bound).sin6_port
                                            : reinterpret_cast<sockaddr_in&>(bound).sin_port);
  if (::pipe2(stop_, O_CLOEXEC) != 0) {
    ::close(listener_);
    throw std::runtime_error(std::string("cannot create a pipe: ") + std::strerror(errno));
  }
  thread_ = std::thread([this] { serve(); });
}

MetricsServer::~MetricsServer() {
  const char byte = 1;
  (void)!::write(stop_[1], &byte, 1);
  thread_.join();
  ::close(listener_);
  ::close(stop_[0]);
  ::close(stop_[1]);
}

std::string MetricsServer::url() const {
  return "http://" + host_ + ":" + std::to_string(port_) + "/metrics";
}

void MetricsServer::serve() {
  for (;;) {
    pollfd fds[2] = {{listener_, POLLIN, 0}, {stop_[0], POLLIN, 0}};
    if (::poll(fds, 2, -1) < 0 && errno != EINTR) return;
    if (fds[1].revents) return;
    if (!(fds[0].revents & POLLIN)) continue;
    const int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) continue;
    answer(client);
    ::close(client);
  }
}

void MetricsServer::answer(int client) const {
  // The request's head, up to its blank line.
  // One deadline for the whole request and a send timeout for the reply, and a stop wakes the
  // wait: a client that trickles its bytes or never reads holds neither the scrapes after it nor
  // the consumer's shutdown for longer than that.
  std::string request;
  char buffer[1024];
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(kRequestMillis);
  const timeval sendLimit{kRequestMillis / 1000, (kRequestMillis % 1000) * 1000};
  ::setsockopt(client, SOL_SOCKET, SO_SNDTIMEO, &sendLimit, sizeof sendLimit);
  while (request.find("\r\n\r\n") == std::string::npos && request.size() < kRequestBytes) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return;
    pollfd fds[2] = {{client, POLLIN, 0}, {stop_[0], POLLIN, 0}};
    if (::poll(fds, 2, static_cast<int>(left.count())) <= 0 || fds[1].revents) return;
    const ssize_t n = ::recv(client, buffer, sizeof buffer, 0);
    if (n <= 0) return;
    request.append(buffer, static_cast<std::size_t>(n));
  }
  const std::string line = request.substr(0, request.find("\r\n"));
  const bool get = line.compare(0, 4, "GET ") == 0;
  const std::string target = get ? line.substr(4, line.find(' ', 4) - 4) : "";
  if (!get) {
    writeAll(client, response("405 Method Not Allowed", "text/plain", "GET /metrics\n"));
  } else if (target != "/metrics" && target.compare(0, 9, "/metrics?") != 0) {
    writeAll(client, response("404 Not Found", "text/plain", "GET /metrics\n"));
  } else {
    std::ostringstream body;
    prometheus::TextSerializer().Serialize(body, collectable_->Collect());
    writeAll(client, response("200 OK", "text/plain; version=0.0.4; charset=utf-8", body.str()));
  }
}

std::string MetricsServer::bindAddress(const std::string& text) {
  const std::size_t colon = text.rfind(':');
  std::string host = colon == std::string::npos ? "" : text.substr(0, colon);
  const std::string port = colon == std::string::npos ? text : text.substr(colon + 1);
  const bool digits = !port.empty() && port.size() <= 5 &&
                      port.find_first_not_of("0123456789") == std::string::npos;
  // An IPv6 address goes in brackets, so that its colons are not taken for the port's.
  const bool v6 = !host.empty() && host.front() == '[';
  const bool hostOk =
      v6 ? host.size() > 2 && host.back() == ']' &&
               host.find_first_not_of("0123456789abcdefABCDEF:.", 1) == host.size() - 1
         : host.find_first_of(":[]/ ") == std::string::npos;
  if (!digits || std::stoi(port) > 65535 || !hostOk)
    throw std::invalid_argument("--metrics: " + text +
                                " is not HOST:PORT, :PORT or PORT with a port from 0 to 65535");
  // Never every interface by default: 0.0.0.0 only when asked for.
  if (host.empty()) host = "127.0.0.1";
  return host + ":" + std::to_string(std::stoi(port));
}
