// Serves metrics over HTTP for Prometheus to scrape (GET /metrics), from threads of its own, for as
// long as it lives.
//
// The address is given as HOST:PORT, :PORT or PORT. Without a host it is the loopback address
// 127.0.0.1: metrics name the consumer's files and databases, and another machine reads them only
// where that was asked for by name (0.0.0.0:PORT, or the address of one interface). Port 0 takes a
// free port, which port() tells.
//
//   MetricsServer server("127.0.0.1:9187", metrics);
#pragma once

#include <memory>
#include <string>

#include <prometheus/collectable.h>

namespace prometheus {
class Exposer;
}

class MetricsServer {
 public:
  // Starts serving collectable; throws std::invalid_argument when address is not of the forms
  // above and std::runtime_error when it cannot be bound.
  MetricsServer(const std::string& address, std::shared_ptr<prometheus::Collectable> collectable);
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
  std::string host_;
  int port_ = 0;
  std::shared_ptr<prometheus::Collectable> collectable_;
  std::unique_ptr<prometheus::Exposer> exposer_;
};
