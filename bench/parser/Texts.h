// The texts that the parser benchmark parses.
#pragma once

#include <string>

namespace Bench {

/// A browser's request: a request line and 14 header fields, 1,024 bytes.
const std::string& http_request();
/// A session description with an audio and a video stream, 2,048 bytes.
const std::string& session_description();

}  // namespace Bench
