#pragma once

#include "platform/Error.h"
#include "platform/KeyRequestSession.h"

#include <any>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <variant>

namespace ovalto::platform {

class ContentKeySession;

// Option of makeStreamingContentKeyRequestData: the key-request protocol versions the caller
// accepts (std::vector<int>); this key system speaks version 1.
inline constexpr const char* contentKeyRequestProtocolVersionsKey = "ContentKeyRequestProtocolVersionsKey";

// One key a content-key session wants, handed to the session's delegate.
class ContentKeyRequest : public std::enable_shared_from_this<ContentKeyRequest> {
public:
    using Options = std::map<std::string, std::any>;
    // The key request, or the error that kept it from being made.
    using RequestDataCompletion =
        std::function<void(std::optional<Data> requestData, std::optional<Error> error)>;

    virtual ~ContentKeyRequest() = default;

    // As given to processContentKeyRequest (a std::string for "skd" keys).
    const std::any& identifier() const { return identifier_; }
    const std::optional<Data>& initializationData() const { return initializationData_; }

    // Asks the session for a persistable request for the same key instead; the session hands
    // it to the delegate's contentKeySessionDidProvidePersistable.
    void respondByRequestingPersistableContentKeyRequest();

    // Makes the key request for `contentIdentifier` with the application certificate;
    // `completion` runs once, on a thread of the platform's choosing.
    void makeStreamingContentKeyRequestData(const Data& appCertificate, const Data& contentIdentifier,
                                            const Options& options, RequestDataCompletion completion);

    // Made by the session only.
    ContentKeyRequest(std::weak_ptr<ContentKeySession> session, std::any identifier,
                      std::optional<Data> initializationData, bool persistable);

protected:
    std::optional<KeyRequestSession> keySession() const;

private:
    const std::weak_ptr<ContentKeySession> session_;
    const std::any identifier_;
    const std::optional<Data> initializationData_;
    const bool persistable_;
    mutable std::mutex mutex_;
    std::optional<KeyRequestSession> keySession_;
};

} // namespace ovalto::platform
