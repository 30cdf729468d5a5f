#pragma once

#include "platform/Error.h"
#include "platform/KeyRequestSession.h"
#include "platform/UrlRequest.h"

#include <any>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <variant>

namespace ovalto::platform {

class LoadingRequest;

// Content types a key answer may declare in the content-information request.
inline constexpr const char* streamingKeyDeliveryContentKeyType = "streamingkeydelivery.contentkey";
inline constexpr const char* streamingKeyDeliveryPersistentContentKeyType =
    "streamingkeydelivery.persistentcontentkey";

// Option of streamingContentKeyRequestData: a bool asking for a key that may be stored.
inline constexpr const char* streamingContentKeyRequestRequiresPersistentKey =
    "StreamingContentKeyRequestRequiresPersistentKey";

// Codes of the errors a loading request itself raises (domain Error::loaderDomain).
enum LoaderErrorCode : std::int64_t {
    loaderErrorNoDelegate = 1, // no delegate, or it declined the request
    loaderErrorCancelled = 2,  // the player gave the request up
    loaderErrorInvalidCertificate = 3,
    loaderErrorInvalidContentIdentifier = 4,
    loaderErrorInvalidKeyResponse = 5,
    loaderErrorKeyForAnotherAsset = 6,
    loaderErrorKeyExpired = 7,
    loaderErrorKeyStorageUnavailable = 8, // the device secret that seals stored keys
};

// The part of a loading request that asks for bytes.
class DataRequest {
public:
    std::int64_t requestedOffset() const { return requestedOffset_; }
    // Bytes wanted from requestedOffset; meaningless when requestsAllDataToEndOfResource.
    std::int64_t requestedLength() const { return requestedLength_; }
    bool requestsAllDataToEndOfResource() const { return toEnd_; }
    // requestedOffset plus what has been handed over so far.
    std::int64_t currentOffset() const;

    // Appends bytes to the answer; may be called several times before the request is finished.
    void respond(const Data& data);

private:
    friend class LoadingRequest;
    DataRequest(std::int64_t offset, std::int64_t length, bool toEnd, std::mutex& mutex)
        : requestedOffset_(offset)
        , requestedLength_(length)
        , toEnd_(toEnd)
        , mutex_(mutex) {}

    std::int64_t requestedOffset_;
    std::int64_t requestedLength_;
    bool toEnd_;
    std::mutex& mutex_; // the owning request's
    Data received_;
    bool closed_ = false; // set once the request is finished or cancelled
};

// The part of a loading request that asks what the resource is.
class ContentInformationRequest {
public:
    std::optional<std::string> contentType() const;
    void setContentType(std::optional<std::string> type);
    std::int64_t contentLength() const;
    void setContentLength(std::int64_t length);
    bool isByteRangeAccessSupported() const;
    void setByteRangeAccessSupported(bool supported);

private:
    friend class LoadingRequest;
    explicit ContentInformationRequest(std::mutex& mutex)
        : mutex_(mutex) {}

    std::mutex& mutex_; // the owning request's
    std::optional<std::string> contentType_;
    std::int64_t contentLength_ = 0;
    bool byteRangeAccessSupported_ = false;
};

// How a loading request ended, as the player side learns it.
struct LoadingOutcome {
    enum class Kind { data, redirect, error, cancelled };

    Kind kind = Kind::cancelled;
    Data data;                              // data: every byte handed to respond(with:)
    std::optional<UrlRequest> redirect;     // redirect: where to fetch the resource instead
    std::optional<UrlResponse> response;    // the response the answerer set, if any
    std::optional<std::string> contentType; // from the content-information request
    std::optional<Error> error;             // error
    // The key request made on the request, which the answer to it is read with.
    std::optional<KeyRequestSession> keySession;
};

// One request of the player for a resource it cannot load itself. The player creates it, hands
// it to the resource-loader delegate, and learns the answer from its completion. Whoever answers
// finishes it exactly once, from any thread.
class LoadingRequest : public std::enable_shared_from_this<LoadingRequest> {
public:
    using Completion = std::function<void(const LoadingOutcome&)>;
    using Options = std::map<std::string, std::any>;

    // What the player asks for besides the URL.
    struct Parts {
        bool dataRequest = true;
        std::int64_t requestedOffset = 0;
        std::int64_t requestedLength = 0;
        bool requestsAllDataToEndOfResource = true;
        bool contentInformationRequest = false;
    };

    // `completion` runs once, on the thread that finishes or cancels the request.
    static std::shared_ptr<LoadingRequest> create(UrlRequest request, Parts parts, Completion completion);

    struct Key; // lets create() use make_shared while the constructor stays private in effect
    LoadingRequest(const Key&, UrlRequest request, Parts parts, Completion completion);

    LoadingRequest(const LoadingRequest&) = delete;
    LoadingRequest& operator=(const LoadingRequest&) = delete;

    const UrlRequest& request() const { return request_; }
    // Null when the player asked for no bytes (no content information either).
    DataRequest* dataRequest() { return dataRequest_ ? &*dataRequest_ : nullptr; }
    ContentInformationRequest* contentInformationRequest() {
        return contentInformationRequest_ ? &*contentInformationRequest_ : nullptr;
    }

    std::optional<UrlResponse> response() const;
    void setResponse(std::optional<UrlResponse> response);
    std::optional<UrlRequest> redirect() const;
    void setRedirect(std::optional<UrlRequest> redirect);

    // Ends the request with what was set on it: its data, or its redirect and response.
    void finishLoading();
    void finishLoading(const Error& error);
    bool isFinished() const;
    bool isCancelled() const;

    // Player side: gives the request up. A later finish by the answerer is ignored quietly.
    void cancel();
    // Player side: fails the request unless it already ended (a delegate that declined it).
    void failIfPending(const Error& error);

    // The key request ("server playback context") for `contentIdentifier`: a fresh session key
    // encrypted to the application certificate's public key. The request keeps the session, so
    // that only the answer to this key request can be turned into a key. A loader error when the
    // certificate is not one or the identifier is empty.
    std::variant<Data, Error> streamingContentKeyRequestData(const Data& appCertificate,
                                                             const Data& contentIdentifier,
                                                             const Options& options = {}) const;
    // The storable key made from a key vendor's answer to the key request made on this request:
    // the content key sealed for this device, with its asset and expiry.
    std::variant<Data, Error> persistentContentKey(const Data& keyVendorResponse,
                                                   const Options& options = {}) const;

private:
    enum class Ending { answer, cancel, fail };
    // Ends the request once; a second answer is the answerer's mistake, anything else is a race
    // with the player giving up and is ignored.
    void end(LoadingOutcome outcome, Ending ending);

    const UrlRequest request_;
    mutable std::mutex mutex_;
    std::optional<DataRequest> dataRequest_;
    std::optional<ContentInformationRequest> contentInformationRequest_;
    std::optional<UrlResponse> response_;
    std::optional<UrlRequest> redirect_;
    bool finished_ = false;
    bool cancelled_ = false;
    mutable std::optional<KeyRequestSession> keySession_;
    Completion completion_;
};

} // namespace ovalto::platform
