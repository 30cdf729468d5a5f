#pragma once

#include "ovalto/ConfigurationKey.h"
#include "platform/ContentKeySessionDelegate.h"
#include "platform/Error.h"
#include "platform/ResourceLoaderDelegate.h"

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace ovalto {

// Obtains persistable content keys for offline playback. Install it as the resource-loader
// delegate of an asset (or hand it key loading requests): for every "skd" key it gets a key from
// the licence server in `configurations` and stores it in the user's key-value store under the
// asset identifier (the host of the key URL), where playback through Ovalto finds it without a
// licence request. Ovalto::deleteLicense removes a stored key.
//
// Below key-system version 11 it answers the loading request itself; from 11 on it starts one
// content-key session per asset and leaves the loading request unanswered. Failures that no
// loading request can carry go to `onError`.
class OVAKeyLoaderDelegate : public platform::ResourceLoaderDelegate,
                             public platform::ContentKeySessionDelegate,
                             public std::enable_shared_from_this<OVAKeyLoaderDelegate> {
public:
    static std::shared_ptr<OVAKeyLoaderDelegate> create();

    // Set before the delegate is used; read from the queues the requests arrive on.
    Configurations configurations;
    std::function<void(const platform::Error&)> onError;

    bool shouldWaitForLoadingOfRequestedResource(
        platform::AssetResourceLoader& loader,
        const std::shared_ptr<platform::LoadingRequest>& request) override;
    bool shouldWaitForRenewalOfRequestedResource(
        platform::AssetResourceLoader& loader,
        const std::shared_ptr<platform::LoadingRequest>& request) override;
    void contentKeySessionDidProvide(platform::ContentKeySession& session,
                                     const std::shared_ptr<platform::ContentKeyRequest>& keyRequest) override;
    void contentKeySessionDidProvidePersistable(
        platform::ContentKeySession& session,
        const std::shared_ptr<platform::PersistableContentKeyRequest>& keyRequest) override;

    // The assets for which a content-key session has been started.
    std::vector<std::string> identifieres() const;

    // Answers one key loading request (below version 11): true when answered, false when the
    // version has no persistable keys, the error when it failed (the request then carries it).
    std::variant<bool, platform::Error> load(const std::shared_ptr<platform::LoadingRequest>& loadingRequest);
    std::variant<platform::Data, platform::Error> getCertificate() const;
    std::variant<std::optional<platform::Data>, platform::Error>
    getLicenseData(const platform::Data& requestData, const std::string& assetId) const;

    struct Key;
    explicit OVAKeyLoaderDelegate(const Key&);

private:
    void report(const platform::Error& error) const;
    // Drops the session of `assetId` once its key is stored (or cannot be).
    void endSession(const std::string& assetId);

    mutable std::mutex lock; // serialises the resource-loader callbacks
    std::vector<std::string> identifieres_;
    // Sessions are kept alive here until their key is stored; the platform holds them no longer.
    mutable std::mutex sessionsMutex_;
    std::map<std::string, std::shared_ptr<platform::ContentKeySession>> sessions_;
};

} // namespace ovalto
