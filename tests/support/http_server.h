/// A web server within this process that answers as a test tells it to.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include <httplib.h>
#include <openssl/evp.h>
#include <openssl/x509v3.h>

#include "tests/support/processes.h"

/// A TLS server with a self-signed certificate for `name` that expired yesterday: devices without a
/// clock must accept it.
inline std::unique_ptr<httplib::Server> TlsServer(const char* name) {
    const std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)> key(EVP_EC_gen("P-256"), EVP_PKEY_free);
    const std::unique_ptr<X509, void (*)(X509*)> own(X509_new(), X509_free);
    X509_gmtime_adj(X509_getm_notBefore(own.get()), -2 * 86400);
    X509_gmtime_adj(X509_getm_notAfter(own.get()), -86400);
    X509_set_pubkey(own.get(), key.get());
    X509_NAME* self = X509_get_subject_name(own.get());
    const auto* text = reinterpret_cast<const unsigned char*>(name);
    X509_NAME_add_entry_by_NID(self, NID_commonName, MBSTRING_ASC, text, -1, -1, 0);
    X509_set_issuer_name(own.get(), self);
    X509_sign(own.get(), key.get(), EVP_sha256());
    return std::make_unique<httplib::SSLServer>(own.get(), key.get());
}

class HttpServer : NoCopy {
public:
    using Reply = std::function<void(const httplib::Request&, httplib::Response&)>;

    /// Starts on a free port of 127.0.0.1; `reply` runs on the server's threads. With `tlsName` it
    /// speaks TLS under that name.
    explicit HttpServer(Reply reply, const char* tlsName = nullptr)
        : server_(tlsName != nullptr ? TlsServer(tlsName) : std::make_unique<httplib::Server>()),
          scheme_(tlsName != nullptr ? "https://" : "http://") {
        const auto answer = [this, reply](const httplib::Request& q, httplib::Response& r) {
            std::unique_lock<std::mutex> guard(lock_);
            seen_.push_back(q);
            guard.unlock();
            reply(q, r);
        };
        server_->Get(".*", answer);
        server_->Post(".*", answer);
        server_->set_keep_alive_timeout(1);
        port_ = server_->bind_to_any_port("127.0.0.1");
        thread_ = std::thread([this] { server_->listen_after_bind(); });
        WaitFor([this] { return server_->is_running(); });
    }

    /// One answer for everything.
    explicit HttpServer(const std::string& body, int status = 200, const char* tlsName = nullptr)
        : HttpServer(
              [body, status](const httplib::Request&, httplib::Response& r) {
                  r.status = status;
                  r.set_content(body, "text/plain");
              },
              tlsName) {}

    ~HttpServer() {
        server_->stop();
        thread_.join();
    }

    int Port() const { return port_; }
    std::string Url(const std::string& path = "/Serv.php") const {
        return scheme_ + "127.0.0.1:" + std::to_string(port_) + path;
    }

    /// The requests so far.
    std::vector<httplib::Request> Requests() const {
        const std::lock_guard<std::mutex> guard(lock_);
        return seen_;
    }

private:
    const std::unique_ptr<httplib::Server> server_;
    const std::string scheme_;
    int port_ = -1;
    mutable std::mutex lock_;
    std::vector<httplib::Request> seen_;
    std::thread thread_;
};
