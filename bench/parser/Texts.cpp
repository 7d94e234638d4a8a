#include "parser/Texts.h"

#include <algorithm>
#include <cstdlib>
#include <string_view>

namespace Bench {

namespace {

/// Lines ended with CR LF; the `@` in them becomes as many bytes as are missing.
std::string make_text(std::string_view lines, std::size_t length) {
    const auto breaks = static_cast<std::size_t>(std::count(lines.begin(), lines.end(), '\n'));
    if (lines.size() + breaks > length) std::abort();
    const std::size_t missing = length - lines.size() - breaks + 1;
    std::string text;
    for (const char c : lines) {
        if (c == '\n') text += '\r';
        text.append(c == '@' ? missing : 1, c == '@' ? 'k' : c);
    }
    return text;
}

}  // namespace

const std::string& http_request() {
    static const std::string text = make_text(
        "GET /live/channel/7/segment/000123.ts?token=5f2b8c9d0e1a&from=1700000000 HTTP/1.1\n"
        "Host: media.example.org:8080\n"
        "User-Agent: Mozilla/5.0 (X11; Linux x86_64; rv:128.0) Gecko/20100101 Firefox/128.0\n"
        "Accept: text/html,application/xhtml+xml,application/xml;q=0.9,image/avif,image/webp,*/*;q=0.8\n"
        "Accept-Language: en-US,en;q=0.7,de;q=0.3\n"
        "Accept-Encoding: gzip, deflate, br\n"
        "Referer: http://media.example.org:8080/live/channel/7/index.html\n"
        "Content-Length: 1234\n"
        "Connection: keep-alive\n"
        "Cookie: session=@; theme=dark; volume=80\n"
        "Sec-Fetch-Dest: document\n"
        "Sec-Fetch-Mode: navigate\n"
        "Sec-Fetch-Site: same-origin\n"
        "If-Modified-Since: Tue, 14 Nov 2023 22:13:20 GMT\n"
        "Cache-Control: max-age=0\n"
        "\n",
        1024);
    return text;
}

const std::string& session_description() {
    static const std::string text = make_text(
        "v=0\n"
        "o=camera 3909283104 3909283104 IN IP4 192.168.1.64\n"
        "s=Media Presentation\n"
        "i=Two streams of one camera\n"
        "e=nobody\n"
        "b=AS:5100\n"
        "t=0 0\n"
        "a=tool:bench\n"
        "a=range:npt=0-\n"
        "a=control:rtsp://192.168.1.64:554/Streaming/Channels/101/\n"
        "m=video 49170 RTP/AVP 96 97\n"
        "c=IN IP4 224.2.36.42/127\n"
        "b=AS:5000\n"
        "a=recvonly\n"
        "a=x-dimensions:1920,1080\n"
        "a=control:rtsp://192.168.1.64:554/Streaming/Channels/101/trackID=1\n"
        "a=rtpmap:96 H264/90000\n"
        "a=fmtp:96 profile-level-id=420029; packetization-mode=1; "
        "sprop-parameter-sets=Z00AKpY1QPAET8s3AQEBAgAAAwACAAADAHge,aO48gAAA\n"
        "a=rtpmap:97 rtx/90000\n"
        "a=fmtp:97 apt=96;rtx-time=3000\n"
        "a=rtcp-fb:96 nack\n"
        "a=rtcp-fb:96 nack pli\n"
        "a=rtcp-fb:96 ccm fir\n"
        "a=ssrc:1823903245 cname:camera-64\n"
        "a=ssrc:1823903245 msid:stream video\n"
        "a=ssrc:1823903245 label:video\n"
        "a=mid:0\n"
        "a=setup:actpass\n"
        "a=ice-ufrag:5xUe\n"
        "a=ice-pwd:jXYf1vQe0lT7dUaQ8lM3ZbSr\n"
        "a=fingerprint:sha-256 "
        "4A:AD:B9:B1:3F:82:18:3B:54:02:12:DF:3E:5D:49:6B:19:E5:7C:AB:4A:AD:B9:B1:3F:82:18:3B:54:02:12:DF\n"
        "a=candidate:1 1 UDP 2130706431 192.168.1.64 49170 typ host\n"
        "a=candidate:2 1 UDP 1694498815 203.0.113.5 49170 typ srflx raddr 192.168.1.64 rport 49170\n"
        "m=audio 49172 RTP/AVP 0 8 101\n"
        "c=IN IP4 224.2.36.43/127\n"
        "b=AS:64\n"
        "a=recvonly\n"
        "a=control:rtsp://192.168.1.64:554/Streaming/Channels/101/trackID=2\n"
        "a=rtpmap:0 PCMU/8000\n"
        "a=rtpmap:8 PCMA/8000\n"
        "a=rtpmap:101 telephone-event/8000\n"
        "a=fmtp:101 0-16\n"
        "a=ssrc:2846102934 cname:camera-64\n"
        "a=ssrc:2846102934 label:audio\n"
        "a=mid:1\n"
        "a=key:@\n",
        2048);
    return text;
}

}  // namespace Bench
