#pragma once

#include "platform/Error.h"

#include <optional>
#include <string>

namespace ovalto {

// The library's one error type. Every failure the library raises is `inputParam` with a code
// from the families 0x81xx (input URL) … 0x86xx (licence); the other cases belong to the public
// type but the library builds none of them.
class OvaltoError {
public:
    enum class Case : int {
        inputParam,
        inputParamURL,
        serverConnection,
        serverReceive,
        serverResponse,
        mediaTypeUnsupported,
        mediaSourceNotFound,
        mediaFormatInvalid,
        initFailed,
        debuggerDetected,
        jailbreakDetected,
        assetPlayable,
    };

    static OvaltoError inputParam(std::string message, int code) {
        return {Case::inputParam, std::move(message), code};
    }
    static OvaltoError inputParamURL(std::string message, int code) {
        return {Case::inputParamURL, std::move(message), code};
    }
    static OvaltoError serverConnection(std::string message, int code) {
        return {Case::serverConnection, std::move(message), code};
    }
    static OvaltoError serverReceive(std::string message, int code) {
        return {Case::serverReceive, std::move(message), code};
    }
    static OvaltoError serverResponse(std::string message, int code) {
        return {Case::serverResponse, std::move(message), code};
    }
    static OvaltoError mediaTypeUnsupported(std::string message, int code) {
        return {Case::mediaTypeUnsupported, std::move(message), code};
    }
    static OvaltoError mediaSourceNotFound(std::string message, int code) {
        return {Case::mediaSourceNotFound, std::move(message), code};
    }
    static OvaltoError mediaFormatInvalid(std::string message, int code) {
        return {Case::mediaFormatInvalid, std::move(message), code};
    }
    static OvaltoError initFailed(std::string message, int code) {
        return {Case::initFailed, std::move(message), code};
    }
    static OvaltoError debuggerDetected() { return {Case::debuggerDetected, {}, payloadlessCode}; }
    static OvaltoError jailbreakDetected() { return {Case::jailbreakDetected, {}, payloadlessCode}; }
    static OvaltoError assetPlayable() { return {Case::assetPlayable, {}, payloadlessCode}; }

    static constexpr int payloadlessCode = 0x8000;
    static constexpr const char* domain = "Ovalto.OvaltoError";

    Case errorCase() const { return case_; }
    // Position of the case in the enumeration; the code the error bridges with.
    int ordinal() const { return static_cast<int>(case_); }
    bool hasPayload() const { return ordinal() <= static_cast<int>(Case::initFailed); }
    // The payload's code, 0x8000 for the payload-less cases.
    int code() const { return code_; }
    // The payload's message (empty for the payload-less cases).
    const std::string& message() const { return message_; }
    // What an application sees as the error's description.
    std::optional<std::string> errorDescription() const;
    std::optional<std::string> failureReason() const { return std::nullopt; }
    std::optional<std::string> recoverySuggestion() const { return std::nullopt; }
    std::optional<std::string> helpAnchor() const { return std::nullopt; }

    // Bridged to the platform's error: domain "Ovalto.OvaltoError", code = ordinal, the typed
    // error kept as payload.
    platform::Error toError() const;
    // The typed error back from a bridged platform error, if it is one.
    static std::optional<OvaltoError> from(const platform::Error& error);

    bool operator==(const OvaltoError&) const = default;

private:
    OvaltoError(Case c, std::string message, int code)
        : case_(c)
        , message_(std::move(message))
        , code_(code) {}
    Case case_;
    std::string message_;
    int code_;
};

} // namespace ovalto
