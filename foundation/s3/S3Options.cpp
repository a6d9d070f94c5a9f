#include "s3/S3FileSystem.h"

#include <cstdlib>
#include <fstream>
#include <map>

namespace zo {

namespace {

using Section = std::map<std::string, std::string>;

std::string environment(const char* name)
{
    const char* value = std::getenv(name);
    return value ? value : "";
}

std::string trim(const std::string& text)
{
    const size_t start = text.find_first_not_of(" \t\r");
    const size_t end = text.find_last_not_of(" \t\r");
    return start == std::string::npos ? std::string() : text.substr(start, end - start + 1);
}

// The settings of section `name` in the INI file `path` (none when the file
// or the section is missing).
Section readSection(const std::string& path, const std::string& name)
{
    Section section;
    std::ifstream file(path);
    bool inside = false;
    for (std::string line; std::getline(file, line);) {
        line = trim(line);
        if (line.empty() || line[0] == '#' || line[0] == ';')
            continue;
        if (line.front() == '[' && line.back() == ']') {
            inside = trim(line.substr(1, line.size() - 2)) == name;
            continue;
        }
        const size_t equals = line.find('=');
        if (inside && equals != std::string::npos)
            section[trim(line.substr(0, equals))] = trim(line.substr(equals + 1));
    }
    return section;
}

std::string fileInHome(const char* variable, const char* relative)
{
    const std::string set = environment(variable);
    return set.empty() ? environment("HOME") + relative : set;
}

std::string firstOf(std::initializer_list<std::string> candidates)
{
    for (const std::string& candidate : candidates) {
        if (!candidate.empty())
            return candidate;
    }
    return std::string();
}

} // namespace

S3Options loadS3Options(const std::string& endpoint)
{
    const std::string profile = firstOf({environment("AWS_PROFILE"), "default"});
    Section credentials = readSection(fileInHome("AWS_SHARED_CREDENTIALS_FILE", "/.aws/credentials"), profile);
    Section config = readSection(fileInHome("AWS_CONFIG_FILE", "/.aws/config"),
                                 profile == "default" ? profile : "profile " + profile);
    S3Options options;
    if (!environment("AWS_ACCESS_KEY_ID").empty()) {
        options.accessKeyId = environment("AWS_ACCESS_KEY_ID");
        options.secretAccessKey = environment("AWS_SECRET_ACCESS_KEY");
        options.sessionToken = environment("AWS_SESSION_TOKEN");
    } else {
        options.accessKeyId = credentials["aws_access_key_id"];
        options.secretAccessKey = credentials["aws_secret_access_key"];
        options.sessionToken = credentials["aws_session_token"];
    }
    if (options.accessKeyId.empty() || options.secretAccessKey.empty())
        throw CError("No S3 credentials: set AWS_ACCESS_KEY_ID and AWS_SECRET_ACCESS_KEY, or give the profile "
                     "in AWS_PROFILE (default \"default\") its keys in ~/.aws/credentials.",
                     String(), -1, CProps().add("profile", String::fromUTF8(profile)));
    options.region = firstOf({environment("AWS_REGION"), environment("AWS_DEFAULT_REGION"), config["region"],
                              credentials["region"], options.region});
    options.endpoint = firstOf(
        {endpoint, environment("AWS_ENDPOINT_URL_S3"), environment("AWS_ENDPOINT_URL"), config["endpoint_url"]});
    options.virtualHostStyle = options.endpoint.empty();
    return options;
}

} // namespace zo
