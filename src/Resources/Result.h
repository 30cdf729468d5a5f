#pragma once

#include "platform/Error.h"

#include <optional>
#include <utility>

namespace ovalto {

// How a resource ended: success (its answer is already on the loading request) or failure with
// the error to finish the request with. OvaltoErrors travel bridged (OvaltoError::toError()).
class Result {
public:
    static Result success() { return Result(std::nullopt); }
    static Result failure(platform::Error error) { return Result(std::move(error)); }

    bool isSuccess() const { return !error_; }
    // The failure's error; null on success.
    const platform::Error* error() const { return error_ ? &*error_ : nullptr; }

private:
    explicit Result(std::optional<platform::Error> error)
        : error_(std::move(error)) {}
    std::optional<platform::Error> error_;
};

} // namespace ovalto
