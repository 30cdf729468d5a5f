#include "ovalto/Ovalto.h"

#include "Internal/OvaltoInternal.h"
#include "QOEManager/QOEManager.h"
#include "platform/KeyValueStore.h"

namespace ovalto {

struct Ovalto::Key {
    explicit Key() = default;
};

namespace {
// Every operation of the facade announces itself with an empty info line.
void logCall(const char* function, int line) {
    OVALog(OVALogLevel::info, "", function, __FILE__, line);
}
} // namespace

std::shared_ptr<Ovalto> Ovalto::create() {
    return std::make_shared<Ovalto>(Key{}, nullptr);
}

std::shared_ptr<Ovalto> Ovalto::create(std::shared_ptr<PluginListener> listener) {
    return std::make_shared<Ovalto>(Key{}, std::move(listener));
}

std::shared_ptr<Ovalto> Ovalto::create(const std::shared_ptr<nivora::Nivora>& nivora) {
    auto manager = std::make_shared<QOEManager>();
    manager->setNivora(nivora);
    return std::make_shared<Ovalto>(Key{}, std::move(manager));
}

Ovalto::Ovalto(const Key&, std::shared_ptr<PluginListener> listener)
    : listener_(std::move(listener)) {}

Ovalto::~Ovalto() {
    if (listener_) {
        listener_->conclude();
        listener_.reset();
    }
    // The engine outlives this call only through work still queued, which finds the facade gone.
    if (!impl_) impl_ = OvaltoInternal::create({});
    impl_->reset();
    impl_.reset();
}

std::shared_ptr<OvaltoInternal> Ovalto::impl() {
    if (!impl_) impl_ = OvaltoInternal::create(weak_from_this());
    return impl_;
}

void Ovalto::prepare(const platform::Url& url, const std::optional<Headers>& customHeaders) {
    logCall("prepare(with:customHeaders:)", __LINE__);
    auto engine = impl();
    if (listener_) {
        listener_->prepare(url);
        engine->pluginListener.set(listener_);
    }
    engine->configurations.set(configurations);
    engine->prepare(url, customHeaders);
}

std::shared_ptr<platform::PlayerItem> Ovalto::playerItem() {
    return impl()->playerItem.get();
}

std::vector<std::string> Ovalto::tracks(MediaType type) {
    logCall("tracks(type:)", __LINE__);
    return impl()->tracks(type);
}

void Ovalto::selectTrack(long index, MediaType type) {
    logCall("selectTrack(at:type:)", __LINE__);
    impl()->selectTrack(index, type);
}

void Ovalto::deleteLicense(const std::string& assetId) {
    logCall("deleteLicense(assetId:)", __LINE__);
    auto& store = platform::KeyValueStore::standard();
    store.remove(assetId);
    store.synchronize();
}

EdgeList Ovalto::edgeList() {
    auto loader = impl()->resourceLoader.get();
    return loader ? loader->presentation->edgeList.get() : EdgeList{};
}

void Ovalto::setEdgeList(EdgeList edgeList) {
    logCall("edgeList", __LINE__);
    if (auto loader = impl()->resourceLoader.get()) loader->presentation->edgeList.set(std::move(edgeList));
}

void Ovalto::addTimedTextSource(const platform::Url& url, const std::string& mimeType) {
    if (auto type = MimeType::fromString(mimeType)) impl()->addTimedTextSource(url, *type);
}

void Ovalto::setOnTimedText(std::function<void(const platform::MediaTime&, const std::string&)> onTimedText) {
    impl()->onTimedText.set(
        onTimedText ? std::make_shared<const OvaltoInternal::TimedTextHandler>(std::move(onTimedText))
                    : nullptr);
}

void Ovalto::setOnTimedTextCue(std::function<void(const std::shared_ptr<Cue>&)> onTimedTextCue) {
    impl()->onTimedTextCue.set(onTimedTextCue ? std::make_shared<const OvaltoInternal::TimedTextCueHandler>(
                                                    std::move(onTimedTextCue))
                                              : nullptr);
}

void Ovalto::setNivora(const std::shared_ptr<nivora::Nivora>& nivora) {
    logCall("setNivora(nivora:)", __LINE__);
    if (auto manager = std::dynamic_pointer_cast<QOEManager>(listener_)) manager->setNivora(nivora);
}

void Ovalto::setPreAlertView(const std::shared_ptr<platform::View>& preAlertView) {
    logCall("setPreAlertView(preAlertView:)", __LINE__);
    if (auto manager = std::dynamic_pointer_cast<QOEManager>(listener_)) {
        manager->setPreAlertView(preAlertView);
        return;
    }
    OVALog(OVALogLevel::warning, "QoEManager not found", "setPreAlertView(preAlertView:)", __FILE__,
           __LINE__);
}

} // namespace ovalto
