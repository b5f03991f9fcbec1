#include "identity/enrolment.h"

#include <curl/curl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <exception>
#include <memory>
#include <string>

#include "api/json_value.h"
#include "daemon/file_util.h"
#include "daemon/logger.h"
#include "daemon/paths.h"
#include "identity/certificate_tools.h"
#include "identity/replacement_file.h"

namespace orv {

namespace {

// The agent's token, by which the authority knows a request comes from this agent.
constexpr const char* kAgentToken = "bLNkyyAslIeDwUrxCpj6G4pcdvavYyR2mj7fYvjUxxcp8Z";

// An authority answers with a few kilobytes; anything far larger is not an answer and
// must not exhaust memory.
constexpr size_t kMaxResponseBytes = 1024 * 1024;
// Start-up waits for the authority, so a black-holed endpoint must not hang it forever.
constexpr long kConnectTimeoutSeconds = 30;
constexpr long kTransferTimeoutSeconds = 60;

// libcurl's process-wide state, from curl_global_init to curl_global_cleanup.
class CurlGlobal {
 public:
  CurlGlobal() { curl_global_init(CURL_GLOBAL_ALL); }
  virtual ~CurlGlobal() { curl_global_cleanup(); }
  CurlGlobal(const CurlGlobal&) = delete;
  CurlGlobal& operator=(const CurlGlobal&) = delete;
};

struct CurlEasyDeleter {
  void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
struct CurlListDeleter {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using CurlHandle = std::unique_ptr<CURL, CurlEasyDeleter>;
using CurlHeaders = std::unique_ptr<curl_slist, CurlListDeleter>;

// The authority's answer as it arrives, bounded by kMaxResponseBytes.
struct Response {
  std::string text;
  bool oversized = false;
};

size_t AppendResponse(char* data, size_t size, size_t count, void* target) {
  auto* response = static_cast<Response*>(target);
  size_t bytes = size * count;
  if (response->text.size() + bytes > kMaxResponseBytes) {
    response->oversized = true;
    return 0;
  }
  response->text.append(data, bytes);
  return bytes;
}

std::string RetrieveDocument() {
  JsonValue document = JsonValue::Object();
  document.add("caId", JsonValue::String("orv"));
  document.add("caVersion", JsonValue::Number(1));
  document.add("action", JsonValue::String("retrieveCaCert"));
  return document.WriteCompact();
}

std::string IssueDocument(const std::string& request) {
  JsonValue document = JsonValue::Object();
  document.add("caId", JsonValue::String("orv"));
  document.add("caVersion", JsonValue::Number(1));
  document.add("key", JsonValue::String(kAgentToken));
  document.add("action", JsonValue::String("issueCert"));
  document.add("certificateRequest", JsonValue::String(request));
  return document.WriteCompact();
}

// The text of a member, or empty when the document has no such member.
std::string Member(const JsonValue& document, const char* name) {
  const JsonValue* member = document.find(name);
  return member == nullptr ? std::string() : member->text();
}

class Enrolment {
 public:
  Enrolment()
      : keyPath_(Paths::CertDir() + "/server.key"),
        csrPath_(Paths::CertDir() + "/server.csr"),
        certPath_(Paths::CertDir() + "/server.pem"),
        caPath_(Paths::CertDir() + "/ca.crt"),
        url_(Paths::CaUrl()) {}
  virtual ~Enrolment() = default;

  bool run();

 private:
  bool perform(const std::string& body);
  bool handleCaResponse();
  std::string handleSignedResponse(const std::string& request);

  std::string keyPath_;
  std::string csrPath_;
  std::string certPath_;
  std::string caPath_;
  std::string url_;
  CertificateTools tools_;
  CURL* curl_ = nullptr;
  Response response_;
  std::string body_;
  char errorBuffer_[CURL_ERROR_SIZE] = {0};
  CURLcode lastCode_ = CURLE_OK;
};

bool Enrolment::run() {
  char hostname[1024] = {0};
  if (gethostname(hostname, sizeof(hostname) - 1) != 0) {
    puts("Error. Could not get hostname.");
    return false;
  }

  CurlGlobal global;
  CurlHandle handle(curl_easy_init());
  if (!handle) {
    puts("Error. Could not initialize curl handle.");
    return false;
  }
  curl_ = handle.get();

  std::string retrieve = RetrieveDocument();

  curl_slist* list = curl_slist_append(nullptr, "Content-Type: application/json");
  CurlHeaders headers(list);
  if (list != nullptr) list = curl_slist_append(list, "Accept: application/json");
  if (list != nullptr) list = curl_slist_append(list, "charsets: utf-8");

  curl_easy_setopt(curl_, CURLOPT_SSLVERSION, 5L);  // TLS 1.1 or later
  // The authority's server certificate is not verified: this is the configured
  // behaviour, the agent has no trust anchor before it holds ca.crt.
  curl_easy_setopt(curl_, CURLOPT_SSL_VERIFYPEER, 0L);
  curl_easy_setopt(curl_, CURLOPT_HTTPHEADER, headers.get());
  curl_easy_setopt(curl_, CURLOPT_URL, url_.c_str());
  curl_easy_setopt(curl_, CURLOPT_CUSTOMREQUEST, "PUT");
  curl_easy_setopt(curl_, CURLOPT_WRITEFUNCTION, AppendResponse);
  curl_easy_setopt(curl_, CURLOPT_WRITEDATA, &response_);
  curl_easy_setopt(curl_, CURLOPT_ERRORBUFFER, errorBuffer_);
  curl_easy_setopt(curl_, CURLOPT_CONNECTTIMEOUT, kConnectTimeoutSeconds);
  curl_easy_setopt(curl_, CURLOPT_TIMEOUT, kTransferTimeoutSeconds);
  curl_easy_setopt(curl_, CURLOPT_NOSIGNAL, 1L);

  if (!perform(retrieve)) {
    LogEvent(kError, "", "CA request failed: %d %s. ", static_cast<int>(lastCode_), errorBuffer_);
    puts("Error. Create CA request failed.");
    LogEvent(kError, "", "Create CA request failed.");
    LogDisplay(kError, "Create CA request failed.");
    return false;
  }
  if (!handleCaResponse()) {
    LogEvent(kError, "", "CA response failed.");
    return false;
  }

  // A new key makes any certificate of the old one worthless; removing it first means
  // a failure from here on leaves the identity incomplete, so the next start enrols
  // again instead of pairing the new key with the old certificate.
  if (unlink(certPath_.c_str()) != 0 && errno != ENOENT) {
    LogEvent(kError, "", "Unable to remove %s, error: %d", certPath_.c_str(), errno);
    return false;
  }
  std::string error = tools_.create(hostname, keyPath_, csrPath_);
  if (!error.empty()) {
    LogEvent(kError, "", "crt request and pk creation failed: %s", error.c_str());
    return false;
  }

  std::string request;
  if (!ReadWholeFile(csrPath_, request)) {
    LogEvent(kError, "", "Error. Could not read in csr.");
    return false;
  }
  std::string issue;
  try {
    issue = IssueDocument(request);
  } catch (const std::exception&) {
    LogEvent(kError, "", "Error. Sign CSR request failed.");
    return false;
  }
  if (!perform(issue)) {
    LogEvent(kError, "", "CA request failed: %d %s. ", static_cast<int>(lastCode_), errorBuffer_);
    LogEvent(kError, "", "Error. Create CSR request failed.");
    return false;
  }
  error = handleSignedResponse(request);
  if (!error.empty()) {
    LogEvent(kError, "", "CSR response error: %s", error.c_str());
    return false;
  }
  return true;
}

bool Enrolment::perform(const std::string& body) {
  body_ = body;
  response_ = Response();
  errorBuffer_[0] = '\0';
  curl_easy_setopt(curl_, CURLOPT_POSTFIELDS, body_.c_str());
  curl_easy_setopt(curl_, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body_.size()));
  lastCode_ = curl_easy_perform(curl_);
  if (lastCode_ == CURLE_OK) return true;
  if (response_.oversized) {
    snprintf(errorBuffer_, sizeof(errorBuffer_), "CA response exceeds %zu bytes", kMaxResponseBytes);
  } else if (errorBuffer_[0] == '\0') {
    snprintf(errorBuffer_, sizeof(errorBuffer_), "%s", curl_easy_strerror(lastCode_));
  }
  return false;
}

bool Enrolment::handleCaResponse() {
  const std::string& text = response_.text;
  try {
    JsonValue document = JsonValue::Parse(text);
    std::string status = Member(document, "status");
    if (status != "success") {
      LogEvent(kError, "", "CA response status: %s", status.c_str());
      LogEvent(kError, "", "CA response: %s", text.c_str());
      return false;
    }
    std::string certificate = Member(document, "certificate");
    if (certificate.empty()) {
      LogEvent(kError, "", "CA response certificate is empty.");
      return false;
    }
    std::string invalid = tools_.checkCertificates(certificate);
    if (!invalid.empty()) {
      LogEvent(kError, "", "CA response certificate is invalid: %s", invalid.c_str());
      return false;
    }
    int code = ReplacementFile::Replace(caPath_, certificate, 0644);
    if (code != 0) {
      LogEvent(kError, "", "Unable to write CA response certificate, error: %d", code);
      return false;
    }
    return true;
  } catch (const std::exception& e) {
    LogEvent(kError, "", "Exception caught parsing certificate response: %s, response: %s", e.what(), text.c_str());
    return false;
  }
}

std::string Enrolment::handleSignedResponse(const std::string& request) {
  const std::string& text = response_.text;
  try {
    JsonValue document = JsonValue::Parse(text);
    std::string status = Member(document, "status");
    std::string certificate = Member(document, "certificate");
    if (status != "success") {
      std::string message = Member(document, "message");
      return message.empty() ? "certificate not issued, status: " + status : message;
    }
    if (certificate.empty()) return "no certificate returned.";
    std::string invalid = tools_.checkSignedCertificate(certificate, request);
    if (!invalid.empty()) return invalid;
    int code = ReplacementFile::Replace(certPath_, certificate, 0644);
    if (code != 0) return "Unable to write signed certificate, error: " + std::to_string(code);
    return "";
  } catch (const std::exception& e) {
    LogEvent(kError, "", "Exception caught parsing signed certificate response: %s, response: %s", e.what(),
             text.c_str());
    return "invalid signed certificate response.";
  }
}

}  // namespace

bool enrol() {
  Enrolment enrolment;
  return enrolment.run();
}

}  // namespace orv
