// A small HTTPS server on 127.0.0.1 for tests of the network road: it makes its own certificate when
// it starts (written beside the test so the client can trust it), answers every request through the
// test's handler on a thread of its own, and records what it was asked. One per test; its accessors
// may be called from the test's thread while it serves.
#pragma once
#include <atomic>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace vantle::testing {

class HttpsTestServer {
  public:
    struct Request {
        std::string method;
        std::string target;                         // the path and query, as sent
        std::map<std::string, std::string> headers; // names lower-cased
        std::string body;
    };
    struct Response {
        int status = 200;
        std::vector<std::pair<std::string, std::string>> headers;
        std::string body;
        bool announceLength = true; // false: no Content-Length, the body ends when the connection closes
    };
    using Handler = std::function<Response(const Request&)>;

    // Makes a key and a certificate for 127.0.0.1 in `folder` and starts listening on a free port.
    HttpsTestServer(const std::filesystem::path& folder, Handler handler);
    ~HttpsTestServer();
    HttpsTestServer(const HttpsTestServer&) = delete;
    HttpsTestServer& operator=(const HttpsTestServer&) = delete;

    int port() const { return port_; }
    // "https://127.0.0.1:{port}"
    std::string origin() const;
    const std::filesystem::path& certificate() const { return certificate_; }

    std::vector<Request> requests() const;
    // Connections accepted, whether or not a request came over them.
    int connections() const { return connections_.load(); }

  private:
    void serve();
    void answer(int fd);

    Handler handler_;
    std::filesystem::path certificate_;
    void* context_ = nullptr; // SSL_CTX
    int listener_ = -1;
    int port_ = 0;
    std::atomic<bool> stopping_{false};
    std::atomic<int> connections_{0};
    std::thread acceptor_;
    mutable std::mutex mutex_;
    std::vector<Request> requests_;
    std::vector<std::thread> workers_;
};

} // namespace vantle::testing
