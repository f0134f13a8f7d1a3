#include "MetricsServer.h"

#include <prometheus/exposer.h>

#include <stdexcept>

MetricsServer::MetricsServer(const std::string& address,
                             std::shared_ptr<prometheus::Collectable> collectable)
    : collectable_(std::move(collectable)) {
  const std::string bind = bindAddress(address);
  host_ = bind.substr(0, bind.rfind(':'));
  try {
    // One thread: a scrape is small and rare.
    exposer_ = std::make_unique<prometheus::Exposer>(bind, 1);
  } catch (const std::exception& e) {
    throw std::runtime_error("cannot serve metrics on " + bind +
                             ": the address is in use or not this machine's (" + e.what() + ")");
  }
  const std::vector<int> ports = exposer_->GetListeningPorts();
  port_ = ports.empty() ? 0 : ports.front();
  exposer_->RegisterCollectable(collectable_);
}

MetricsServer::~MetricsServer() = default;

std::string MetricsServer::url() const {
  return "http://" + host_ + ":" + std::to_string(port_) + "/metrics";
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
