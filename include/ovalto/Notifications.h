#pragma once

namespace ovalto {

// Names of the notifications the library posts on the default notification centre.
inline constexpr const char* OvaltoErrorNotification = "OvaltoErrorNotification";
inline constexpr const char* OvaltoPreparationNotification = "OvaltoPreparationNotification";
inline constexpr const char* OvaltoLogNotification = "OvaltoLogNotification";

// userInfo key of the error notification (its value is a platform::Error bridged from OvaltoError
// or the error as raised).
inline constexpr const char* OvaltoErrorUserInfoKey = "OvaltoError";
// userInfo key of the log notification, value a std::string.
inline constexpr const char* OvaltoLog = "OvaltoLog";

} // namespace ovalto
