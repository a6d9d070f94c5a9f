#include "s3/S3Client.h"

#include "zo/Error.h"
#include "zo/Signal.h"
#include "zo/Thread.h"

#include <curl/curl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/evp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <deque>
#include <map>
#include <mutex>
#include <random>
#include <string_view>

namespace zo {

namespace {

using Clock = std::chrono::steady_clock;

const char* shuttingDown = "The S3 client is shutting down.";
constexpr int maxRetryDelayMs = 5000;
// Bodies up to this size get their whole room at once, from Content-Length.
constexpr long long maxReservedBody = 64LL << 20;
// curl's receive buffer: one read takes a brick-sized object in a few calls.
constexpr long receiveBufferBytes = 256L << 10;

void initialiseCurlOnce()
{
    static const CURLcode result = curl_global_init(CURL_GLOBAL_DEFAULT);
    if (result != CURLE_OK)
        throw CError("curl could not be initialised.", String(), -1,
                     CProps().add("curlError", String::fromUTF8(curl_easy_strerror(result))));
}

// The hex SHA-256 of `bytes`, which the service checks the body against.
std::string sha256Hex(const std::string& bytes)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_sha256(), nullptr) != 1)
        throw CError("OpenSSL could not hash a request body.");
    return toHexDigits(digest, length);
}

size_t appendBody(char* data, size_t size, size_t count, void* response)
{
    static_cast<S3Response*>(response)->body.append(data, size * count);
    return size * count;
}

bool startsWithIgnoringCase(std::string_view text, std::string_view lowerCasePrefix)
{
    return text.size() >= lowerCasePrefix.size() &&
        std::equal(lowerCasePrefix.begin(), lowerCasePrefix.end(), text.begin(),
                   [](char a, char b) { return a == std::tolower(static_cast<unsigned char>(b)); });
}

// Splits "scheme://host[:port][/path]" into "scheme://" and the rest without
// a trailing "/".
std::pair<std::string, std::string> splitEndpoint(const std::string& endpoint)
{
    const size_t schemeEnd = endpoint.find("://");
    const size_t hostStart = schemeEnd == std::string::npos ? 0 : schemeEnd + 3;
    std::string rest = endpoint.substr(hostStart);
    while (!rest.empty() && rest.back() == '/')
        rest.pop_back();
    return {schemeEnd == std::string::npos ? "https://" : endpoint.substr(0, hostStart), rest};
}

} // namespace

std::string s3UriEncode(const std::string& text, bool keepSlash)
{
    static const char* hex = "0123456789ABCDEF";
    std::string encoded;
    for (const unsigned char c : text) {
        if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_' ||
            c == '.' || c == '~' || (keepSlash && c == '/')) {
            encoded += static_cast<char>(c);
        } else {
            encoded += '%';
            encoded += hex[c >> 4];
            encoded += hex[c & 15];
        }
    }
    return encoded;
}

bool isRetryableS3Response(const S3Response& response)
{
    return response.status == 0 || response.status >= 500 || response.status == 429;
}

// One request on its way: its curl handle and what curl fills in.
struct Transfer {
    S3Request request;
    CS3Client::Callback done;
    S3Response response;
    CURL* easy = nullptr;
    curl_slist* headers = nullptr;
    char errorText[CURL_ERROR_SIZE] = {};
    Clock::time_point retryAt;
    void* loop = nullptr; // the CS3Client::Loop that runs it
    int localPort = -1;
    bool bodyFollows = false;

    ~Transfer()
    {
        curl_slist_free_all(headers);
        if (easy)
            curl_easy_cleanup(easy);
    }
};

struct CS3Client::Loop {
    const CS3Client& client;
    CURLM* multi = nullptr;
    std::mutex mutex;
    std::deque<std::unique_ptr<Transfer>> queued; // guarded by mutex
    bool stopping = false; // guarded by mutex
    std::map<CURL*, std::unique_ptr<Transfer>> running;
    std::vector<std::unique_ptr<Transfer>> waitingToRetry;
    std::mt19937 jitter{std::random_device{}()};
    // The connections' sockets and their local ports (0 until looked up); used
    // on the loop's thread.
    std::map<curl_socket_t, int> sockets;
    P<CThread> thread;

    explicit Loop(const CS3Client& owner) : client(owner)
    {
        initialiseCurlOnce();
        multi = curl_multi_init();
        if (!multi)
            throw CError("curl could not create a transfer handle.");
        const long connections = std::max(1, client.m_options.maxConnections);
        curl_multi_setopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS, connections);
        curl_multi_setopt(multi, CURLMOPT_MAXCONNECTS, connections);
        thread = startThread([this] { run(); });
    }

    ~Loop()
    {
        {
            std::lock_guard lock(mutex);
            stopping = true;
        }
        curl_multi_wakeup(multi);
        thread->join();
        curl_multi_cleanup(multi);
    }

    void add(std::unique_ptr<Transfer> transfer)
    {
        {
            std::lock_guard lock(mutex);
            if (!stopping) {
                queued.push_back(std::move(transfer));
                transfer.reset();
            }
        }
        if (transfer) {
            transfer->response.transportError = shuttingDown;
            transfer->done(transfer->response);
            return;
        }
        curl_multi_wakeup(multi);
    }

    static curl_socket_t openSocket(void* loop, curlsocktype, curl_sockaddr* address)
    {
        const curl_socket_t socket = ::socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
        if (socket != CURL_SOCKET_BAD)
            static_cast<Loop*>(loop)->sockets[socket] = 0;
        return socket;
    }

    static int closeSocket(void* loop, curl_socket_t socket)
    {
        static_cast<Loop*>(loop)->sockets.erase(socket);
        return ::close(socket);
    }

    // Called by curl once a request has its connection: notes the local port,
    // which tells the connection's socket apart from the others.
    static int onConnectionChosen(void* transfer, char*, char*, int, int localPort)
    {
        static_cast<Transfer*>(transfer)->localPort = localPort;
        return CURL_PREREQFUNC_OK;
    }

    // Called by curl for each header line of a response. When the headers of
    // a response with a body are through, its connection acknowledges them at
    // once: a service that writes the headers and then a short body (radosgw:
    // error documents, small objects) or the last piece of a chunked body
    // (radosgw: every listing) holds those bytes back until what it sent
    // before is acknowledged (Nagle's algorithm), and Linux delays the
    // acknowledgement on a connection that both sends and receives by up to
    // 40 ms, which made each such response cost 40 ms.
    static size_t onHeaderLine(char* line, size_t size, size_t count, void* transfer)
    {
        Transfer& t = *static_cast<Transfer*>(transfer);
        const std::string_view text(line, size * count);
        constexpr std::string_view lengthHeader = "content-length:";
        constexpr std::string_view encodingHeader = "transfer-encoding:";
        if (startsWithIgnoringCase(text, lengthHeader)) {
            const long long length = std::strtoll(line + lengthHeader.size(), nullptr, 10);
            t.bodyFollows = length > 0;
            if (length > 0 && length <= maxReservedBody)
                t.response.body.reserve(static_cast<size_t>(length));
        } else if (startsWithIgnoringCase(text, encodingHeader)) {
            // A chunked body has no length up front: it follows, however
            // short it turns out.
            t.bodyFollows = true;
        } else if (text == "\r\n" && t.bodyFollows) {
            static_cast<Loop*>(t.loop)->acknowledgeAtOnce(t.localPort);
        }
        return size * count;
    }

    void acknowledgeAtOnce(int localPort)
    {
        curl_socket_t found = CURL_SOCKET_BAD;
        for (auto& [socket, port] : sockets) {
            if (port == 0) { // a connection made since the last look
                sockaddr_storage address{};
                socklen_t length = sizeof address;
                if (getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length) == 0)
                    port = address.ss_family == AF_INET6 ? ntohs(reinterpret_cast<sockaddr_in6&>(address).sin6_port)
                                                         : ntohs(reinterpret_cast<sockaddr_in&>(address).sin_port);
            }
            if (port == localPort)
                found = socket;
        }
        const int on = 1;
        if (found != CURL_SOCKET_BAD)
            setsockopt(found, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on); // a hint: failure changes nothing
    }

    void start(std::unique_ptr<Transfer> transfer)
    {
        const S3Options& options = client.m_options;
        Transfer& t = *transfer;
        if (t.easy)
            curl_easy_reset(t.easy);
        else
            t.easy = curl_easy_init();
        curl_slist_free_all(t.headers);
        t.headers = nullptr;
        t.response = S3Response{0, std::string(), -1, std::string(), t.response.attempts + 1};
        t.errorText[0] = 0;
        t.loop = this;
        t.localPort = -1;
        t.bodyFollows = false;

        const std::string url = client.urlOf(t.request);
        const std::string signing = "aws:amz:" + options.region + ":s3";
        curl_easy_setopt(t.easy, CURLOPT_URL, url.c_str());
        curl_easy_setopt(t.easy, CURLOPT_AWS_SIGV4, signing.c_str());
        curl_easy_setopt(t.easy, CURLOPT_USERNAME, options.accessKeyId.c_str());
        curl_easy_setopt(t.easy, CURLOPT_PASSWORD, options.secretAccessKey.c_str());
        curl_easy_setopt(t.easy, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(t.easy, CURLOPT_CONNECTTIMEOUT, static_cast<long>(options.connectTimeoutSeconds));
        curl_easy_setopt(t.easy, CURLOPT_TIMEOUT, static_cast<long>(options.requestTimeoutSeconds));
        curl_easy_setopt(t.easy, CURLOPT_ERRORBUFFER, t.errorText);
        curl_easy_setopt(t.easy, CURLOPT_WRITEFUNCTION, appendBody);
        curl_easy_setopt(t.easy, CURLOPT_WRITEDATA, &t.response);
        curl_easy_setopt(t.easy, CURLOPT_BUFFERSIZE, receiveBufferBytes);
        curl_easy_setopt(t.easy, CURLOPT_HEADERFUNCTION, onHeaderLine);
        curl_easy_setopt(t.easy, CURLOPT_HEADERDATA, &t);
        curl_easy_setopt(t.easy, CURLOPT_PREREQFUNCTION, onConnectionChosen);
        curl_easy_setopt(t.easy, CURLOPT_PREREQDATA, &t);
        curl_easy_setopt(t.easy, CURLOPT_OPENSOCKETFUNCTION, openSocket);
        curl_easy_setopt(t.easy, CURLOPT_OPENSOCKETDATA, this);
        curl_easy_setopt(t.easy, CURLOPT_CLOSESOCKETFUNCTION, closeSocket);
        curl_easy_setopt(t.easy, CURLOPT_CLOSESOCKETDATA, this);
        curl_easy_setopt(t.easy, CURLOPT_PRIVATE, &t);

        // curl signs every header it sends, the body's hash among them.
        t.headers = curl_slist_append(t.headers, ("x-amz-content-sha256: " + sha256Hex(t.request.body)).c_str());
        if (!options.sessionToken.empty())
            t.headers = curl_slist_append(t.headers, ("x-amz-security-token: " + options.sessionToken).c_str());
        for (const std::string& header : t.request.headers)
            t.headers = curl_slist_append(t.headers, header.c_str());
        if (t.request.method == "HEAD") {
            curl_easy_setopt(t.easy, CURLOPT_NOBODY, 1L);
        } else if (t.request.method == "PUT") {
            t.headers = curl_slist_append(t.headers, "Content-Type: application/octet-stream");
            curl_easy_setopt(t.easy, CURLOPT_CUSTOMREQUEST, "PUT");
            curl_easy_setopt(t.easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(t.request.body.size()));
            curl_easy_setopt(t.easy, CURLOPT_POSTFIELDS, t.request.body.data());
        } else if (t.request.method != "GET") {
            curl_easy_setopt(t.easy, CURLOPT_CUSTOMREQUEST, t.request.method.c_str());
        }
        curl_easy_setopt(t.easy, CURLOPT_HTTPHEADER, t.headers);

        const CURLMcode added = curl_multi_add_handle(multi, t.easy);
        if (added != CURLM_OK) {
            t.response.transportError = curl_multi_strerror(added);
            finish(std::move(transfer));
            return;
        }
        running.emplace(t.easy, std::move(transfer));
    }

    void onTransferDone(CURL* easy, CURLcode result)
    {
        curl_multi_remove_handle(multi, easy);
        auto found = running.find(easy);
        std::unique_ptr<Transfer> transfer = std::move(found->second);
        running.erase(found);
        Transfer& t = *transfer;
        if (result == CURLE_OK) {
            curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &t.response.status);
            curl_off_t length = -1;
            curl_easy_getinfo(easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
            t.response.contentLength = length;
        } else {
            t.response.transportError = t.errorText[0] ? t.errorText : curl_easy_strerror(result);
        }
        if (isRetryableS3Response(t.response) && t.response.attempts < client.m_options.maxAttempts && !isStopping()) {
            t.retryAt = Clock::now() + retryDelay(t.response.attempts);
            waitingToRetry.push_back(std::move(transfer));
            return;
        }
        finish(std::move(transfer));
    }

    // Full jitter over a doubling pause: retries of many requests spread out.
    std::chrono::milliseconds retryDelay(int attempts)
    {
        const int base = std::max(1, client.m_options.firstRetryDelayMs);
        const int ceiling = std::min(maxRetryDelayMs, base << std::min(attempts - 1, 16));
        return std::chrono::milliseconds(std::uniform_int_distribution<int>(ceiling / 2, ceiling)(jitter));
    }

    static void finish(std::unique_ptr<Transfer> transfer) { transfer->done(transfer->response); }

    bool isStopping()
    {
        std::lock_guard lock(mutex);
        return stopping;
    }

    void startDue()
    {
        std::deque<std::unique_ptr<Transfer>> fresh;
        {
            std::lock_guard lock(mutex);
            fresh.swap(queued);
        }
        for (auto& transfer : fresh)
            start(std::move(transfer));
        const Clock::time_point now = Clock::now();
        std::vector<std::unique_ptr<Transfer>> due;
        for (auto it = waitingToRetry.begin(); it != waitingToRetry.end();) {
            if ((*it)->retryAt <= now) {
                due.push_back(std::move(*it));
                it = waitingToRetry.erase(it);
            } else {
                ++it;
            }
        }
        for (auto& transfer : due)
            start(std::move(transfer));
    }

    int pollTimeoutMs() const
    {
        int timeout = 1000;
        const Clock::time_point now = Clock::now();
        for (const auto& transfer : waitingToRetry) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(transfer->retryAt - now).count();
            timeout = std::min(timeout, static_cast<int>(std::max<int64>(0, left)));
        }
        return timeout;
    }

    void run()
    {
        while (!isStopping()) {
            startDue();
            int active = 0;
            curl_multi_perform(multi, &active);
            while (CURLMsg* message = curl_multi_info_read(multi, &active)) {
                if (message->msg == CURLMSG_DONE)
                    onTransferDone(message->easy_handle, message->data.result);
            }
            curl_multi_poll(multi, nullptr, 0, pollTimeoutMs(), nullptr);
        }
        failEverythingLeft();
    }

    void failEverythingLeft()
    {
        std::vector<std::unique_ptr<Transfer>> left;
        for (auto& [easy, transfer] : running) {
            curl_multi_remove_handle(multi, easy);
            left.push_back(std::move(transfer));
        }
        running.clear();
        for (auto& transfer : waitingToRetry)
            left.push_back(std::move(transfer));
        waitingToRetry.clear();
        {
            std::lock_guard lock(mutex);
            for (auto& transfer : queued)
                left.push_back(std::move(transfer));
            queued.clear();
        }
        for (auto& transfer : left) {
            transfer->response.status = 0;
            transfer->response.transportError = shuttingDown;
            finish(std::move(transfer));
        }
    }
};

CS3Client::CS3Client(const S3Options& options) : m_options(options), m_loop(std::make_unique<Loop>(*this))
{}

CS3Client::~CS3Client() = default;

void CS3Client::submit(S3Request request, Callback done)
{
    auto transfer = std::make_unique<Transfer>();
    transfer->request = std::move(request);
    transfer->done = std::move(done);
    m_loop->add(std::move(transfer));
}

S3Response CS3Client::perform(S3Request request)
{
    struct Outcome {
        CSignal done;
        S3Response response;
    };
    auto outcome = std::make_shared<Outcome>();
    submit(std::move(request), [outcome](S3Response& response) {
        outcome->response = std::move(response);
        outcome->done.set();
    });
    outcome->done.wait(-1);
    return std::move(outcome->response);
}

std::string CS3Client::urlOf(const S3Request& request) const
{
    const std::string endpoint =
        m_options.endpoint.empty() ? "https://s3." + m_options.region + ".amazonaws.com" : m_options.endpoint;
    const auto [scheme, host] = splitEndpoint(endpoint);
    std::string url = m_options.virtualHostStyle
        ? scheme + request.bucket + "." + host + "/"
        : scheme + host + "/" + request.bucket + (request.key.empty() ? "" : "/");
    url += s3UriEncode(request.key, true);
    auto query = request.query;
    std::sort(query.begin(), query.end());
    for (size_t i = 0; i < query.size(); ++i) {
        url += i == 0 ? '?' : '&';
        url += s3UriEncode(query[i].first, false);
        url += '=';
        url += s3UriEncode(query[i].second, false);
    }
    return url;
}

} // namespace zo
