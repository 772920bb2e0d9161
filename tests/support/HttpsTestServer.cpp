#include "HttpsTestServer.h"

#include <arpa/inet.h>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace vantle::testing {

namespace {

void addExtension(X509* certificate, int nid, const char* value) {
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, certificate, certificate, nullptr, nullptr, 0);
    X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
    if (!extension) throw std::runtime_error("certificate extension");
    X509_add_ext(certificate, extension, -1);
    X509_EXTENSION_free(extension);
}

std::string reasonPhrase(int status) {
    switch (status) {
    case 200:
        return "OK";
    case 301:
        return "Moved Permanently";
    case 302:
        return "Found";
    case 303:
        return "See Other";
    case 307:
        return "Temporary Redirect";
    case 403:
        return "Forbidden";
    case 404:
        return "Not Found";
    default:
        return "Status";
    }
}

} // namespace

HttpsTestServer::HttpsTestServer(const std::filesystem::path& folder, Handler handler)
    : handler_(std::move(handler)) {
    // A client that gives up mid-answer must not end the test program.
    std::signal(SIGPIPE, SIG_IGN);

    EVP_PKEY* key = EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256");
    X509* certificate = X509_new();
    if (!key || !certificate) throw std::runtime_error("test key");
    X509_set_version(certificate, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), static_cast<long>(std::time(nullptr)));
    X509_gmtime_adj(X509_getm_notBefore(certificate), -3600);
    X509_gmtime_adj(X509_getm_notAfter(certificate), 24 * 3600);
    X509_set_pubkey(certificate, key);
    X509_NAME* name = X509_get_subject_name(certificate);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("127.0.0.1"),
                               -1, -1, 0);
    X509_set_issuer_name(certificate, name);
    addExtension(certificate, NID_basic_constraints, "critical,CA:TRUE");
    addExtension(certificate, NID_subject_alt_name, "IP:127.0.0.1");
    X509_sign(certificate, key, EVP_sha256());

    certificate_ = folder / "test-server.pem";
    if (FILE* out = std::fopen(certificate_.c_str(), "w")) {
        PEM_write_X509(out, certificate);
        std::fclose(out);
    }

    SSL_CTX* context = SSL_CTX_new(TLS_server_method());
    SSL_CTX_use_certificate(context, certificate);
    SSL_CTX_use_PrivateKey(context, key);
    context_ = context;
    X509_free(certificate);
    EVP_PKEY_free(key);

    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int yes = 1;
    ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener_, 64) != 0)
        throw std::runtime_error("test server could not listen");
    socklen_t length = sizeof address;
    ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
    acceptor_ = std::thread([this] { serve(); });
}

HttpsTestServer::~HttpsTestServer() {
    stopping_ = true;
    acceptor_.join();
    std::vector<std::thread> workers;
    {
        std::lock_guard lock(mutex_);
        workers.swap(workers_);
    }
    for (auto& worker : workers)
        worker.join();
    ::close(listener_);
    SSL_CTX_free(static_cast<SSL_CTX*>(context_));
}

std::string HttpsTestServer::origin() const {
    return "https://127.0.0.1:" + std::to_string(port_);
}

std::vector<HttpsTestServer::Request> HttpsTestServer::requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
}

void HttpsTestServer::serve() {
    while (!stopping_) {
        pollfd waiting{listener_, POLLIN, 0};
        if (::poll(&waiting, 1, 50) <= 0) continue;
        int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        ++connections_;
        std::lock_guard lock(mutex_);
        workers_.emplace_back([this, fd] { answer(fd); });
    }
}

void HttpsTestServer::answer(int fd) {
    timeval limit{10, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    SSL* ssl = SSL_new(static_cast<SSL_CTX*>(context_));
    SSL_set_fd(ssl, fd);
    if (SSL_accept(ssl) == 1) {
        std::string received;
        char buffer[4096];
        size_t headEnd = std::string::npos;
        while ((headEnd = received.find("\r\n\r\n")) == std::string::npos && received.size() < 65536) {
            int n = SSL_read(ssl, buffer, sizeof buffer);
            if (n <= 0) break;
            received.append(buffer, static_cast<size_t>(n));
        }
        if (headEnd != std::string::npos) {
            Request request;
            std::string head = received.substr(0, headEnd);
            std::string rest = received.substr(headEnd + 4);
            size_t lineEnd = head.find("\r\n");
            std::string first = head.substr(0, lineEnd);
            size_t space = first.find(' ');
            request.method = first.substr(0, space);
            request.target = first.substr(space + 1, first.rfind(' ') - space - 1);
            size_t at = lineEnd == std::string::npos ? head.size() : lineEnd + 2;
            while (at < head.size()) {
                size_t end = head.find("\r\n", at);
                if (end == std::string::npos) end = head.size();
                std::string line = head.substr(at, end - at);
                if (auto colon = line.find(':'); colon != std::string::npos) {
                    std::string field = line.substr(0, colon);
                    for (auto& c : field)
                        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
                    std::string value = line.substr(colon + 1);
                    while (!value.empty() && value.front() == ' ')
                        value.erase(0, 1);
                    request.headers[field] = value;
                }
                at = end + 2;
            }
            size_t wanted = request.headers.contains("content-length")
                                ? std::stoul(request.headers["content-length"])
                                : 0;
            while (rest.size() < wanted) {
                int n = SSL_read(ssl, buffer, sizeof buffer);
                if (n <= 0) break;
                rest.append(buffer, static_cast<size_t>(n));
            }
            request.body = rest;
            {
                std::lock_guard lock(mutex_);
                requests_.push_back(request);
            }
            Response response = handler_(request);
            std::string out =
                "HTTP/1.1 " + std::to_string(response.status) + " " + reasonPhrase(response.status) + "\r\n";
            for (auto& [field, value] : response.headers)
                out += field + ": " + value + "\r\n";
            if (response.announceLength)
                out += "Content-Length: " + std::to_string(response.body.size()) + "\r\n";
            out += "Connection: close\r\n\r\n";
            out += response.body;
            size_t sent = 0;
            while (sent < out.size()) {
                int n = SSL_write(ssl, out.data() + sent,
                                  static_cast<int>(std::min<size_t>(out.size() - sent, 16384)));
                if (n <= 0) break;
                sent += static_cast<size_t>(n);
            }
            SSL_shutdown(ssl);
        }
    }
    SSL_free(ssl);
    ERR_clear_error();
    ::close(fd);
}

} // namespace vantle::testing
