#include "scripted_service.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/socket.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <chrono>
#include <memory>
#include <stdexcept>

namespace vumo::testing {

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace ssl = asio::ssl;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;
using ErrorCode = boost::system::error_code;

struct KeyFree {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct CertificateFree {
  void operator()(X509* certificate) const { X509_free(certificate); }
};
using Key = std::unique_ptr<EVP_PKEY, KeyFree>;
using Certificate = std::unique_ptr<X509, CertificateFree>;

void require(bool condition, const char* what) {
  if (!condition) throw std::runtime_error(std::string("OpenSSL: ") + what);
}

void addExtension(X509* certificate, X509* issuer, int nid, const char* value) {
  X509V3_CTX context;
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value);
  require(extension != nullptr, "extension");
  X509_add_ext(certificate, extension, -1);
  X509_EXTENSION_free(extension);
}

Certificate makeCertificate(EVP_PKEY* key, const char* commonName, X509* issuer, EVP_PKEY* issuerKey, long serial) {
  Certificate certificate(X509_new());
  X509_set_version(certificate.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), serial);
  X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -3600);
  X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 24 * 3600);
  X509_set_pubkey(certificate.get(), key);
  X509_NAME* name = X509_get_subject_name(certificate.get());
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(commonName), -1, -1, 0);
  X509_set_issuer_name(certificate.get(), issuer ? X509_get_subject_name(issuer) : name);
  (void)issuerKey;
  return certificate;
}

std::string pemOf(X509* certificate) {
  BIO* bio = BIO_new(BIO_s_mem());
  PEM_write_bio_X509(bio, certificate);
  char* data = nullptr;
  long size = BIO_get_mem_data(bio, &data);
  std::string pem(data, static_cast<std::size_t>(size));
  BIO_free(bio);
  return pem;
}

std::string pemOf(EVP_PKEY* key) {
  BIO* bio = BIO_new(BIO_s_mem());
  PEM_write_bio_PrivateKey(bio, key, nullptr, nullptr, 0, nullptr, nullptr);
  char* data = nullptr;
  long size = BIO_get_mem_data(bio, &data);
  std::string pem(data, static_cast<std::size_t>(size));
  BIO_free(bio);
  return pem;
}

Key readKey(const std::string& pem) {
  BIO* bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
  Key key(PEM_read_bio_PrivateKey(bio, nullptr, nullptr, nullptr));
  BIO_free(bio);
  return key;
}

Certificate readCertificate(const std::string& pem) {
  BIO* bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
  Certificate certificate(PEM_read_bio_X509(bio, nullptr, nullptr, nullptr));
  BIO_free(bio);
  return certificate;
}

}  // namespace

ThrowAwayAuthority::ThrowAwayAuthority() {
  Key key(EVP_EC_gen("P-256"));
  require(key != nullptr, "key");
  Certificate certificate = makeCertificate(key.get(), "Vumo Test Authority", nullptr, key.get(), 1);
  addExtension(certificate.get(), certificate.get(), NID_basic_constraints, "critical,CA:TRUE");
  addExtension(certificate.get(), certificate.get(), NID_key_usage, "critical,keyCertSign,cRLSign");
  addExtension(certificate.get(), certificate.get(), NID_subject_key_identifier, "hash");
  require(X509_sign(certificate.get(), key.get(), EVP_sha256()) > 0, "sign");
  authority_ = {pemOf(certificate.get()), pemOf(key.get())};
}

ThrowAwayAuthority::~ThrowAwayAuthority() = default;

TlsIdentity ThrowAwayAuthority::issue(const std::string& subjectAltNames) const {
  Key authorityKey = readKey(authority_.privateKeyPem);
  Certificate authority = readCertificate(authority_.certificatePem);
  Key key(EVP_EC_gen("P-256"));
  require(key != nullptr, "key");
  static long serial = 100;
  Certificate certificate =
      makeCertificate(key.get(), "Vumo Test Service", authority.get(), authorityKey.get(), ++serial);
  addExtension(certificate.get(), authority.get(), NID_basic_constraints, "critical,CA:FALSE");
  addExtension(certificate.get(), authority.get(), NID_ext_key_usage, "serverAuth");
  addExtension(certificate.get(), authority.get(), NID_subject_alt_name, subjectAltNames.c_str());
  require(X509_sign(certificate.get(), authorityKey.get(), EVP_sha256()) > 0, "sign");
  return {pemOf(certificate.get()), pemOf(key.get())};
}

struct ScriptedService::Impl {
  asio::io_context io;
  tcp::acceptor acceptor{io};
  std::optional<ssl::context> tls;
  ServiceScript script;

  template <class WebSocket>
  void converse(WebSocket& socket, ReceivedConversation& received) {
    beast::flat_buffer buffer;
    http::request<http::string_body> request;
    ErrorCode error;
    http::read(socket.next_layer(), buffer, request, error);
    if (error) return;
    received.authorization = std::string(request[http::field::authorization]);
    received.target = std::string(request.target());
    socket.accept(request, error);
    if (error) return;
    received.upgraded = true;

    for (;;) {
      beast::flat_buffer message;
      socket.read(message, error);
      if (error) return;
      if (!socket.got_text()) {
        received.binarySizes.push_back(message.size());
        continue;
      }
      received.texts.push_back(beast::buffers_to_string(message.data()));
      if (received.texts.back().find("\"finish-task\"") != std::string::npos) break;
    }
    for (const std::string& reply : script.replies) {
      socket.text(true);
      socket.write(asio::buffer(reply), error);
      if (error) return;
    }
    if (script.ending == ServiceScript::Ending::closeEarly) {
      socket.close(websocket::close_reason(websocket::close_code::internal_error), error);
      return;
    }
    for (;;) {
      beast::flat_buffer message;
      socket.read(message, error);
      if (error == websocket::error::closed) received.clientCloseCode = static_cast<unsigned>(socket.reason().code);
      if (error) return;
    }
  }
};

ScriptedService::ScriptedService(ServiceScript script, std::optional<TlsIdentity> tls) : impl_(new Impl) {
  impl_->script = std::move(script);
  if (tls) {
    impl_->tls.emplace(ssl::context::tls_server);
    impl_->tls->use_certificate_chain(asio::buffer(tls->certificatePem));
    impl_->tls->use_private_key(asio::buffer(tls->privateKeyPem), ssl::context::pem);
  }
  tcp::endpoint local(asio::ip::make_address("127.0.0.1"), 0);
  impl_->acceptor.open(local.protocol());
  impl_->acceptor.bind(local);
  impl_->acceptor.listen();
  port_ = impl_->acceptor.local_endpoint().port();

  thread_ = std::thread([this] {
    pollfd waiting{impl_->acceptor.native_handle(), POLLIN, 0};
    if (::poll(&waiting, 1, 5'000) == 1) {
      ErrorCode error;
      tcp::socket socket(impl_->io);
      impl_->acceptor.accept(socket, error);
      if (!error) {
        received_.connected = true;
        connection_ = socket.native_handle();
        if (impl_->tls) {
          websocket::stream<ssl::stream<tcp::socket>> stream(std::move(socket), *impl_->tls);
          stream.next_layer().handshake(ssl::stream_base::server, error);
          if (!error) {
            // The HTTP request is read from the TLS layer, as the WebSocket itself would.
            impl_->converse(stream, received_);
          }
        } else {
          websocket::stream<tcp::socket> stream(std::move(socket));
          impl_->converse(stream, received_);
        }
      }
    }
    finished_ = true;
  });
}

void ScriptedService::finish() {
  if (!thread_.joinable()) return;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (!finished_ && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  // A client that misbehaved may have left the server waiting; wake it.
  if (!finished_ && connection_ >= 0) ::shutdown(connection_, SHUT_RDWR);
  thread_.join();
}

const ReceivedConversation& ScriptedService::received() {
  finish();
  return received_;
}

ScriptedService::~ScriptedService() {
  finish();
  delete impl_;
}

}  // namespace vumo::testing
