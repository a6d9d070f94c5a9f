// The S3 client's transfer thread, without a service: a request that reaches
// no service is answered with the transport's error, and closing the client
// answers a request that still waits for its service.
#include "s3/S3Client.h"

#include "zo/Signal.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// A socket on a free local port that listens and never accepts: the kernel
// takes a connection to it, and no answer ever comes.
class SilentListener {
public:
    SilentListener()
    {
        m_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        m_ready = m_fd >= 0 && ::bind(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
            ::listen(m_fd, 8) == 0 && ::getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &size) == 0;
        m_port = ntohs(address.sin_port);
    }
    ~SilentListener() { close(); }
    SilentListener(const SilentListener&) = delete;
    SilentListener& operator=(const SilentListener&) = delete;

    bool isReady() const { return m_ready; }
    // The service's endpoint on the listener's port.
    std::string endpoint() const { return "http://127.0.0.1:" + std::to_string(m_port); }
    // Stops listening: a connection to the port is refused from now on.
    void close()
    {
        if (m_fd >= 0)
            ::close(m_fd);
        m_fd = -1;
    }

private:
    int m_fd = -1;
    int m_port = 0;
    bool m_ready = false;
};

// Options for a service at `endpoint`, each request tried once.
zo::S3Options optionsFor(const std::string& endpoint)
{
    zo::S3Options options;
    options.endpoint = endpoint;
    options.accessKeyId = "key";
    options.secretAccessKey = "secret";
    options.maxAttempts = 1;
    return options;
}

zo::S3Request getRequest()
{
    zo::S3Request request;
    request.bucket = "bucket";
    request.key = "disk/header";
    return request;
}

} // namespace

TEST(S3Client, AnswersARequestThatReachesNoServiceWithTheTransportError)
{
    SilentListener listener;
    ASSERT_TRUE(listener.isReady());
    const std::string endpoint = listener.endpoint();
    listener.close();
    zo::CS3Client client(optionsFor(endpoint));

    const zo::S3Response response = client.perform(getRequest());

    EXPECT_EQ(response.status, 0);
    EXPECT_FALSE(response.transportError.empty());
    EXPECT_EQ(response.attempts, 1);
}

TEST(S3Client, ClosingAnswersARequestThatStillWaitsForTheService)
{
    const SilentListener listener;
    ASSERT_TRUE(listener.isReady());
    auto client = std::make_unique<zo::CS3Client>(optionsFor(listener.endpoint()));
    zo::CSignal answered;
    zo::S3Response response;
    client->submit(getRequest(), [&](zo::S3Response& answer) {
        response = answer;
        answered.set();
    });

    client.reset();

    EXPECT_TRUE(answered.isSet());
    EXPECT_EQ(response.status, 0);
    EXPECT_EQ(response.transportError, "The S3 client is shutting down.");
}
