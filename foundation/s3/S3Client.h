// CS3Client: the HTTP side of the S3 file system. One thread drives a curl
// multi handle: requests from any thread join it, run side by side over the
// handle's reused connections, are signed by curl (AWS Signature Version 4)
// and retried after a pause when the answer says the service may do better
// later. Callbacks run on that thread.
#pragma once

#include "s3/S3FileSystem.h"

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace zo {

struct S3Request {
    std::string method = "GET"; // GET, HEAD, PUT or DELETE
    std::string bucket;
    std::string key; // empty for the bucket itself
    // Query parameters, not yet encoded; sent sorted by name, as the
    // signature needs them.
    std::vector<std::pair<std::string, std::string>> query;
    // Further headers, "Name: value".
    std::vector<std::string> headers;
    std::string body;
};

struct S3Response {
    // The HTTP status; 0 when no answer came (see `transportError`).
    long status = 0;
    std::string body;
    // The body's length as announced (HEAD), -1 when none was.
    int64 contentLength = -1;
    std::string transportError;
    int attempts = 0;
};

class CS3Client {
public:
    using Callback = std::function<void(S3Response& response)>;

    // Starts the transfer thread. Throws CError when curl cannot be set up.
    explicit CS3Client(const S3Options& options);
    // Stops the thread; requests still under way complete with the transport
    // error "The S3 client is shutting down.". Never throws.
    ~CS3Client();
    CS3Client(const CS3Client&) = delete;
    CS3Client& operator=(const CS3Client&) = delete;

    // Queues `request`; `done` runs once on the transfer thread with the final
    // answer (after retries). Any thread may call, the transfer thread too.
    void submit(S3Request request, Callback done);
    // Runs `request` and waits for its final answer. Not on the transfer thread.
    S3Response perform(S3Request request);

    // The URL of `request`: endpoint, addressing style, encoded key and sorted,
    // encoded query.
    std::string urlOf(const S3Request& request) const;
    const S3Options& getOptions() const { return m_options; }

private:
    struct Loop;
    S3Options m_options;
    std::unique_ptr<Loop> m_loop;
};

// `text` percent-encoded as S3 signs it: every byte but A-Z a-z 0-9 - _ . ~
// and, when `keepSlash`, "/".
std::string s3UriEncode(const std::string& text, bool keepSlash);
// True for an answer worth another try: none at all, 5xx or 429.
bool isRetryableS3Response(const S3Response& response);

} // namespace zo
