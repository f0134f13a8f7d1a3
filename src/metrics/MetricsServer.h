// Serves metrics over HTTP for Prometheus to scrape (GET /metrics, in the text format), from a
// thread of its own, for as long as it lives.
//
// The address is given as HOST:PORT, :PORT or PORT. Without a host it is the loopback address
// 127.0.0.1: metrics name the consumer's files and databases, and another machine reads them only
// where that was asked for by name (0.0.0.0:PORT, or the address of one interface). Port 0 takes a
// free port, which port() tells.
//
// The endpoint is a few lines of HTTP/1.0 here rather than prometheus-cpp's civetweb server, whose
// Debian build gives its threads 100 KiB stacks: the program's thread-local storage (the plugin's
// record buffers, linked in for snapshots) takes most of that, and a scrape overflowed the rest.
// Requests are answered one at a time; a client gets 5 seconds to send its request.
//
//   MetricsServer server("127.0.0.1:9187", metrics);
#pragma once

#include <memory>
#include <string>
#include <thread>

#include <prometheus/collectable.h>

class MetricsServer {
 public:
  // Starts serving collectable; throws std::invalid_argument when address is not of the forms
  // above and std::runtime_error when it cannot be bound.
  MetricsServer(const std::string& address, std::shared_ptr<prometheus::Collectable> collectable);
  // Stops serving, after the request being answered.
  ~MetricsServer();
  MetricsServer(const MetricsServer&) = delete;
  MetricsServer& operator=(const MetricsServer&) = delete;

  // The port it listens on.
  int port() const { return port_; }
  // http://HOST:PORT/metrics
  std::string url() const;

  // The address to bind for a --metrics value: host and port, the host 127.0.0.1 when none is
  // given. Throws std::invalid_argument, worded for the user, when it is not HOST:PORT, :PORT or
  // PORT with a port from 0 to 65535.
  static std::string bindAddress(const std::string& text);

 private:
  void serve();
  void answer(int client) const;

  std::string host_;
  int port_ = 0;
  std::shared_ptr<prometheus::Collectable> collectable_;
  int listener_ = -1;
  int stop_[2] = {-1, -1};
  std::thread thread_;
};
