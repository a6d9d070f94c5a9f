#include "s3/S3ObjectStore.h"

#include "objectstore/ObjectLeaseLock.h"
#include "zo/Signal.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace zo {

namespace {

std::string decodeEntities(const std::string& text)
{
    static const std::pair<const char*, char> entities[] = {
        {"&amp;", '&'}, {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&apos;", '\''}};
    std::string decoded;
    for (size_t i = 0; i < text.size();) {
        bool replaced = false;
        if (text[i] == '&') {
            for (const auto& [entity, c] : entities) {
                if (text.compare(i, std::strlen(entity), entity) == 0) {
                    decoded += c;
                    i += std::strlen(entity);
                    replaced = true;
                    break;
                }
            }
            const size_t end = text.find(';', i);
            if (!replaced && text.compare(i, 2, "&#") == 0 && end != std::string::npos) {
                const bool hex = text[i + 2] == 'x';
                const unsigned long code =
                    std::stoul(text.substr(i + (hex ? 3 : 2), end - i - (hex ? 3 : 2)), nullptr, hex ? 16 : 10);
                if (code < 0x80) {
                    decoded += static_cast<char>(code);
                    i = end + 1;
                    replaced = true;
                }
            }
        }
        if (!replaced)
            decoded += text[i++];
    }
    return decoded;
}

S3Request requestFor(const char* method, const ObjectName& name)
{
    S3Request request;
    request.method = method;
    request.bucket = name.container;
    request.key = name.key;
    return request;
}

String pathOf(const ObjectName& name)
{
    return String::fromUTF8("s3://" + name.container + "/" + name.key);
}

// An ETag without the double quotes around it.
std::string unquoted(const std::string& tag)
{
    if (tag.size() >= 2 && tag.front() == '"' && tag.back() == '"')
        return tag.substr(1, tag.size() - 2);
    return tag;
}

// S3 may answer a copy with 200 and an error in the body.
bool succeeded(const S3Response& response)
{
    return response.status >= 200 && response.status < 300 && response.body.find("<Error>") == std::string::npos;
}

// The raw texts (entities left as they are) of the elements `tag` of an
// S3 XML answer, for elements that hold elements of their own.
std::vector<std::string> rawXmlElements(const std::string& xml, const std::string& tag)
{
    const std::string open = "<" + tag + ">";
    const std::string close = "</" + tag + ">";
    std::vector<std::string> texts;
    for (size_t at = xml.find(open); at != std::string::npos; at = xml.find(open, at)) {
        const size_t start = at + open.size();
        const size_t end = xml.find(close, start);
        if (end == std::string::npos)
            break;
        texts.push_back(xml.substr(start, end - start));
        at = end + close.size();
    }
    return texts;
}

} // namespace

std::vector<std::string> xmlElements(const std::string& xml, const std::string& tag)
{
    const std::string open = "<" + tag + ">";
    const std::string close = "</" + tag + ">";
    std::vector<std::string> texts;
    for (size_t at = xml.find(open); at != std::string::npos; at = xml.find(open, at)) {
        const size_t start = at + open.size();
        const size_t end = xml.find(close, start);
        if (end == std::string::npos)
            break;
        texts.push_back(decodeEntities(xml.substr(start, end - start)));
        at = end + close.size();
    }
    return texts;
}

CFileSystemError makeS3Error(const S3Response& response, const char* action, const ObjectName& name)
{
    const std::vector<std::string> codes = xmlElements(response.body, "Code");
    const std::vector<std::string> messages = xmlElements(response.body, "Message");
    const std::string code = codes.empty() ? std::string() : codes.front();
    CProps props;
    props.add("path", pathOf(name))
        .add("bucket", String::fromUTF8(name.container))
        .add("key", String::fromUTF8(name.key))
        .add("action", action)
        .add("attempts", response.attempts);
    CFileSystemError::Problem problem = CFileSystemError::Unclassified;
    String message;
    if (response.status == 0) {
        props.add("transportError", String::fromUTF8(response.transportError));
        message = "The S3 service did not answer.";
    } else {
        props.add("httpStatus", static_cast<int64>(response.status));
        if (!code.empty())
            props.add("s3Code", String::fromUTF8(code));
        if (!messages.empty() && !messages.front().empty())
            props.add("s3Message", String::fromUTF8(messages.front()));
        if (response.status == 404) {
            problem = CFileSystemError::NotFound;
            message = code == "NoSuchBucket" ? "The bucket does not exist." : "The object does not exist.";
        } else if (response.status == 412) {
            problem = CFileSystemError::AlreadyExists;
            message = "The object already exists.";
        } else if (response.status == 403) {
            problem = CFileSystemError::AccessDenied;
            message = code == "InvalidAccessKeyId" || code == "SignatureDoesNotMatch"
                ? "The S3 service refused the credentials: check the access key and the secret key."
                : "The S3 service denied access.";
        } else {
            message = "The S3 service refused the request.";
        }
    }
    return CFileSystemError(problem, CError(message, "s3", -1, props));
}

CS3ObjectStore::CS3ObjectStore(const S3Options& options) : m_client(options)
{}

void CS3ObjectStore::checkBucket(const std::string& bucket)
{
    {
        std::lock_guard lock(m_mutex);
        if (m_checkedBuckets.count(bucket))
            return;
    }
    // HEAD tells no reason; a listing of one key names a missing bucket or a
    // wrong key as such.
    S3Request request = requestFor("GET", ObjectName{bucket, std::string()});
    request.query = {{"list-type", "2"}, {"max-keys", "1"}};
    const S3Response response = m_client.perform(std::move(request));
    if (!succeeded(response)) {
        CFileSystemError error = makeS3Error(response, "check the bucket", ObjectName{bucket, std::string()});
        if (response.status == 404)
            error = CFileSystemError(CFileSystemError::NotFound,
                                     CError("The bucket does not exist.", "s3", -1, error.getProps()));
        throw error;
    }
    std::lock_guard lock(m_mutex);
    m_checkedBuckets.insert(bucket);
}

void CS3ObjectStore::createBucket(const std::string& bucket)
{
    S3Request request = requestFor("PUT", ObjectName{bucket, std::string()});
    const std::string region = m_client.getOptions().region;
    if (region != "us-east-1")
        request.body = "<CreateBucketConfiguration><LocationConstraint>" + region +
            "</LocationConstraint></CreateBucketConfiguration>";
    const S3Response response = m_client.perform(std::move(request));
    if (succeeded(response))
        return;
    const std::vector<std::string> codes = xmlElements(response.body, "Code");
    if (response.status == 409 && !codes.empty() && codes.front() == "BucketAlreadyOwnedByYou")
        throw CFileSystemError(CFileSystemError::AlreadyExists,
                               CError("The bucket exists already.", "s3", -1,
                                      makeS3Error(response, "create the bucket", ObjectName{bucket, ""}).getProps()));
    throw makeS3Error(response, "create the bucket", ObjectName{bucket, std::string()});
}

void CS3ObjectStore::submitPut(const ObjectName& name, std::string bytes, bool conditional, Done done)
{
    S3Request request = requestFor("PUT", name);
    request.body = std::move(bytes);
    if (conditional)
        request.headers.push_back("If-None-Match: *");
    m_client.submit(std::move(request), [name, done = std::move(done)](S3Response& response) {
        if (succeeded(response)) {
            done(nullptr);
            return;
        }
        const CFileSystemError error = makeS3Error(response, "write", name);
        done(&error);
    });
}

void CS3ObjectStore::beginPut(const ObjectName& name, std::string bytes, bool exclusive, Done done)
{
    checkBucket(name.container);
    if (!exclusive || m_client.getOptions().conditionalWrites) {
        submitPut(name, std::move(bytes), exclusive, std::move(done));
        return;
    }
    if (stat(name))
        throw makeS3Error(S3Response{412, std::string(), -1, std::string(), 1}, "write", name);
    submitPut(name, std::move(bytes), false, std::move(done));
}

void CS3ObjectStore::beginCopy(const ObjectName& from, const ObjectName& to, bool exclusive, Done done)
{
    checkBucket(from.container);
    checkBucket(to.container);
    if (exclusive && stat(to))
        throw makeS3Error(S3Response{412, std::string(), -1, std::string(), 1}, "copy", to);
    S3Request request = requestFor("PUT", to);
    request.headers.push_back("x-amz-copy-source: /" + from.container + "/" + s3UriEncode(from.key, true));
    m_client.submit(std::move(request), [from, done = std::move(done)](S3Response& response) {
        if (succeeded(response)) {
            done(nullptr);
            return;
        }
        const CFileSystemError error = makeS3Error(response, "copy", from);
        done(&error);
    });
}

void CS3ObjectStore::beginRemove(const ObjectName& name, Done done)
{
    checkBucket(name.container);
    m_client.submit(requestFor("HEAD", name), [this, name, done = std::move(done)](S3Response& head) {
        if (head.status != 200) {
            const CFileSystemError error = makeS3Error(head, "remove", name);
            done(&error);
            return;
        }
        m_client.submit(requestFor("DELETE", name), [name, done](S3Response& response) {
            if (succeeded(response)) {
                done(nullptr);
                return;
            }
            const CFileSystemError error = makeS3Error(response, "remove", name);
            done(&error);
        });
    });
}

std::optional<int64> CS3ObjectStore::stat(const ObjectName& name)
{
    checkBucket(name.container);
    const S3Response response = m_client.perform(requestFor("HEAD", name));
    if (response.status == 404)
        return std::nullopt;
    if (response.status != 200)
        throw makeS3Error(response, "stat", name);
    return response.contentLength < 0 ? 0 : response.contentLength;
}

std::string CS3ObjectStore::read(const ObjectName& name)
{
    checkBucket(name.container);
    S3Response response = m_client.perform(requestFor("GET", name));
    if (response.status != 200)
        throw makeS3Error(response, "read", name);
    return std::move(response.body);
}

std::string CS3ObjectStore::readRange(const ObjectName& name, int64 offset, int size)
{
    checkBucket(name.container);
    S3Request request = requestFor("GET", name);
    request.headers.push_back("Range: bytes=" + std::to_string(offset) + "-" + std::to_string(offset + size - 1));
    S3Response response = m_client.perform(request);
    // 416: the range starts at or after the object's end.
    if (response.status == 416)
        return std::string();
    if (response.status == 200)
        return response.body.substr(std::min(response.body.size(), static_cast<size_t>(offset)),
                                    static_cast<size_t>(size));
    if (response.status != 206)
        throw makeS3Error(response, "read", name);
    return std::move(response.body);
}

void CS3ObjectStore::write(const ObjectName& name, int64 offset, const void* bytes, int size)
{
    std::string content;
    if (stat(name))
        content = read(name);
    const size_t end = static_cast<size_t>(offset) + static_cast<size_t>(size);
    if (content.size() < end)
        content.resize(end, '\0');
    content.replace(static_cast<size_t>(offset), static_cast<size_t>(size), static_cast<const char*>(bytes),
                    static_cast<size_t>(size));
    runSync([&](Done done) { submitPut(name, std::move(content), false, std::move(done)); });
}

void CS3ObjectStore::truncate(const ObjectName& name, int64 length)
{
    std::string content = read(name);
    content.resize(static_cast<size_t>(length), '\0');
    runSync([&](Done done) { submitPut(name, std::move(content), false, std::move(done)); });
}

void CS3ObjectStore::listPages(
    const std::string& container, const std::string& prefix, bool delimiter, int limit,
    const std::function<void(const std::string& name, int64 size, const std::string& tag)>& found)
{
    checkBucket(container);
    const int pageSize = std::max(1, std::min(1000, m_client.getOptions().listPageSize));
    std::string token;
    int count = 0;
    do {
        S3Request request = requestFor("GET", ObjectName{container, std::string()});
        request.query = {{"list-type", "2"},
                         {"prefix", prefix},
                         {"max-keys", std::to_string(limit > 0 ? std::min(pageSize, limit - count) : pageSize)}};
        if (delimiter)
            request.query.emplace_back("delimiter", "/");
        if (!token.empty())
            request.query.emplace_back("continuation-token", token);
        const S3Response response = m_client.perform(std::move(request));
        if (response.status != 200)
            throw makeS3Error(response, "list", ObjectName{container, prefix});
        for (const std::string& object : rawXmlElements(response.body, "Contents")) {
            const std::vector<std::string> keys = xmlElements(object, "Key");
            const std::vector<std::string> sizes = xmlElements(object, "Size");
            const std::vector<std::string> tags = xmlElements(object, "ETag");
            if (keys.empty())
                continue;
            found(keys.front(), sizes.empty() ? 0 : std::strtoll(sizes.front().c_str(), nullptr, 10),
                  tags.empty() ? std::string() : unquoted(tags.front()));
            ++count;
        }
        for (const std::string& folder : xmlElements(response.body, "Prefix")) {
            if (folder != prefix && folder.size() > prefix.size())
                found(folder, -1, std::string());
        }
        const std::vector<std::string> truncated = xmlElements(response.body, "IsTruncated");
        const std::vector<std::string> next = xmlElements(response.body, "NextContinuationToken");
        token = !truncated.empty() && truncated.front() == "true" && !next.empty() ? next.front() : std::string();
    } while (!token.empty() && (limit <= 0 || count < limit));
}

TList<std::string> CS3ObjectStore::list(const std::string& container, const std::string& prefix, int limit)
{
    TList<std::string> keys;
    listPages(container, prefix, false, limit,
              [&](const std::string& key, int64, const std::string&) { keys.push_back(key); });
    return keys;
}

TList<std::string> CS3ObjectStore::listChildren(const std::string& container, const std::string& prefix)
{
    TList<std::string> names;
    listPages(container, prefix, true, 0, [&](const std::string& name, int64, const std::string&) {
        std::string entry = name.substr(prefix.size());
        if (!entry.empty() && entry.back() == '/')
            entry.pop_back();
        if (!entry.empty())
            names.push_back(entry);
    });
    return names;
}

std::optional<IObjectStore::Level> CS3ObjectStore::listLevelInOneRequest(const std::string& container,
                                                                         const std::string& prefix)
{
    checkBucket(container);
    const int pageSize = std::max(1, std::min(1000, m_client.getOptions().listPageSize));
    S3Request request = requestFor("GET", ObjectName{container, std::string()});
    request.query = {
        {"list-type", "2"}, {"prefix", prefix}, {"max-keys", std::to_string(pageSize)}, {"delimiter", "/"}};
    const S3Response response = m_client.perform(std::move(request));
    if (response.status != 200)
        throw makeS3Error(response, "list", ObjectName{container, prefix});
    const std::vector<std::string> truncated = xmlElements(response.body, "IsTruncated");
    if (!truncated.empty() && truncated.front() == "true")
        return std::nullopt;
    Level level;
    for (const std::string& key : xmlElements(response.body, "Key")) {
        if (key.size() > prefix.size())
            level.files.insert(key.substr(prefix.size()));
        else if (key == prefix)
            level.hasMarker = true;
    }
    // The request's own prefix comes back as a Prefix element too.
    for (const std::string& folder : xmlElements(response.body, "Prefix")) {
        if (folder.size() > prefix.size() + 1)
            level.folders.insert(folder.substr(prefix.size(), folder.size() - prefix.size() - 1));
    }
    return level;
}

std::optional<IObjectStore::SizedLevel> CS3ObjectStore::listLevelWithSizes(const std::string& container,
                                                                           const std::string& prefix)
{
    SizedLevel level;
    listPages(container, prefix, true, 0, [&](const std::string& name, int64 size, const std::string& tag) {
        if (size >= 0 && name == prefix) {
            level.hasMarker = true;
        } else if (size >= 0 && name.size() > prefix.size()) {
            level.files.emplace(name.substr(prefix.size()), size);
            if (!tag.empty())
                level.tags.emplace(name.substr(prefix.size()), tag);
        } else if (size < 0 && name.size() > prefix.size() + 1) {
            level.folders.insert(name.substr(prefix.size(), name.size() - prefix.size() - 1));
        }
    });
    return level;
}

P<IFileSystemLock> CS3ObjectStore::lock(const ObjectName& name, bool exclusive)
{
    return P<IFileSystemLock>(
        new CObjectLeaseLock(this, "s3", name, exclusive, m_client.getOptions().lockLeaseSeconds));
}

} // namespace zo
