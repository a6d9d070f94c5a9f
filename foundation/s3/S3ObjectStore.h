// CS3ObjectStore: IObjectStore over an S3 service (CS3Client). Containers
// are buckets; each bucket is checked once, on first use, so that a missing
// one gives its own error rather than missing files. The asynchronous calls
// report from the client's transfer thread.
//
// S3 writes objects only whole: write() and truncate() read the object,
// change it and write it back. S3's DELETE succeeds for a missing object, so
// a removal asks first (NotFound as the interface wants).
#pragma once

#include "objectstore/ObjectStore.h"
#include "s3/S3Client.h"

#include <mutex>
#include <set>

namespace zo {

class CS3ObjectStore : public CBase, public IObjectStore {
public:
    // Starts the client (see CS3FileSystem's constructor for the errors).
    explicit CS3ObjectStore(const S3Options& options);
    // Every call must have completed. Never throws.
    ~CS3ObjectStore() override = default;
    CS3ObjectStore(const CS3ObjectStore&) = delete;
    CS3ObjectStore& operator=(const CS3ObjectStore&) = delete;

    void beginPut(const ObjectName& name, std::string bytes, bool exclusive, Done done) override;
    void beginCopy(const ObjectName& from, const ObjectName& to, bool exclusive, Done done) override;
    void beginRemove(const ObjectName& name, Done done) override;
    std::optional<int64> stat(const ObjectName& name) override;
    std::string read(const ObjectName& name) override;
    // A GET with a Range header; a service that sends the whole object
    // instead (status 200) has it cut to the range.
    std::string readRange(const ObjectName& name, int64 offset, int size) override;
    void write(const ObjectName& name, int64 offset, const void* bytes, int size) override;
    void truncate(const ObjectName& name, int64 length) override;
    TList<std::string> list(const std::string& container, const std::string& prefix, int limit) override;
    // One ListObjectsV2 listing with the delimiter "/".
    TList<std::string> listChildren(const std::string& container, const std::string& prefix) override;
    // One page of that listing; nothing when the level is longer than a page.
    std::optional<Level> listLevelInOneRequest(const std::string& container, const std::string& prefix) override;
    // The ListObjectsV2 listing with the delimiter "/", page by page, with
    // the sizes and the ETags (unquoted) it gives.
    std::optional<SizedLevel> listLevelWithSizes(const std::string& container, const std::string& prefix) override;
    // A CObjectLeaseLock with the options' lease.
    P<IFileSystemLock> lock(const ObjectName& name, bool exclusive) override;

    // Creates a bucket (AlreadyExists when the caller owns it already).
    void createBucket(const std::string& bucket);

private:
    // Throws NotFound, with the service's word, unless `bucket` exists.
    void checkBucket(const std::string& bucket);
    // Lists `prefix` page by page; `delimiter` asks for one level. `found`
    // hears each key with its object's size and ETag (unquoted; empty when
    // the answer has none), and each folder of the level (a key prefix
    // ending in "/") with the size -1 and no tag.
    void listPages(const std::string& container, const std::string& prefix, bool delimiter, int limit,
                   const std::function<void(const std::string& name, int64 size, const std::string& tag)>& found);
    void submitPut(const ObjectName& name, std::string bytes, bool conditional, Done done);

    CS3Client m_client;
    std::mutex m_mutex;
    std::set<std::string> m_checkedBuckets;
};

// The error of an answer that failed: CFileSystemError NotFound (404),
// AlreadyExists (412), AccessDenied (403) or Unclassified, with "path",
// "bucket", "key", "action", "httpStatus", "s3Code", "s3Message" or
// "transportError", and "attempts".
CFileSystemError makeS3Error(const S3Response& response, const char* action, const ObjectName& name);

// The texts of the elements `tag` in an S3 XML answer, entities decoded.
std::vector<std::string> xmlElements(const std::string& xml, const std::string& tag);

} // namespace zo
