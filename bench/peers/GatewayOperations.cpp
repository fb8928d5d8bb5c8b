// etcd over its JSON gateway, as clients without its protocol use it. The answers are searched, not
// parsed, to spare the processor for the server: both share it.

#include <cstring>
#include <memory>
#include <stdexcept>
#include <string_view>

#include <curl/curl.h>

#include "Names.h"
#include "Pages.h"
#include "PeerOperations.h"

namespace Veltrane::Quillmark::Bench {

namespace {

using nlohmann::json;

constexpr const char* DIGITS = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::string toBase64(const std::string& bytes)
{
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        unsigned group = 0;
        const std::size_t count = std::min<std::size_t>(3, bytes.size() - i);
        for (std::size_t j = 0; j < 3; ++j)
            group = group << 8 | (j < count ? static_cast<unsigned char>(bytes[i + j]) : 0u);
        for (std::size_t j = 0; j < 4; ++j)
            text += j <= count ? DIGITS[group >> (18 - 6 * j) & 63] : '=';
    }
    return text;
}

std::string fromBase64(std::string_view text)
{
    std::string bytes;
    unsigned group = 0;
    unsigned bits = 0;
    for (const char c : text) {
        const char* digit = std::strchr(DIGITS, c);
        if (c == '=' || !digit)
            break;
        group = group << 6 | static_cast<unsigned>(digit - DIGITS);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            bytes += static_cast<char>(group >> bits & 255);
        }
    }
    return bytes;
}

/// One connection, which stays open between the requests.
class Gateway
{
  public:
    explicit Gateway(std::string url) : m_url(std::move(url))
    {
        m_curl.reset(::curl_easy_init());
        if (!m_curl)
            throw std::runtime_error("no memory for a connection");
        ::curl_easy_setopt(m_curl.get(), CURLOPT_WRITEFUNCTION, &Gateway::receive);
        ::curl_easy_setopt(m_curl.get(), CURLOPT_WRITEDATA, &m_answer);
        ::curl_easy_setopt(m_curl.get(), CURLOPT_TCP_NODELAY, 1L);
        ::curl_easy_setopt(m_curl.get(), CURLOPT_NOPROXY, "*");
        ::curl_easy_setopt(m_curl.get(), CURLOPT_TIMEOUT, 300L);
        // The body of a large request need not wait for the server's consent.
        m_headers.reset(::curl_slist_append(nullptr, "Expect:"));
        ::curl_easy_setopt(m_curl.get(), CURLOPT_HTTPHEADER, m_headers.get());
    }

    /// The answer's body. It is valid until the next request.
    const std::string& post(const char* path, const std::string& body)
    {
        m_answer.clear();
        ::curl_easy_setopt(m_curl.get(), CURLOPT_URL, (m_url + path).c_str());
        ::curl_easy_setopt(m_curl.get(), CURLOPT_POSTFIELDS, body.data());
        ::curl_easy_setopt(m_curl.get(), CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
        const CURLcode result = ::curl_easy_perform(m_curl.get());
        if (result != CURLE_OK)
            throw std::runtime_error(::curl_easy_strerror(result));
        long status = 0;
        ::curl_easy_getinfo(m_curl.get(), CURLINFO_RESPONSE_CODE, &status);
        if (status != 200)
            throw std::runtime_error("etcd answers " + std::to_string(status) + ": " +
                                     m_answer.substr(0, 200));
        return m_answer;
    }

  private:
    static std::size_t receive(const char* data, std::size_t size, std::size_t count, void* answer)
    {
        static_cast<std::string*>(answer)->append(data, size * count);
        return size * count;
    }

    std::string m_url;
    std::string m_answer;
    std::unique_ptr<CURL, decltype(&::curl_easy_cleanup)> m_curl{nullptr, &::curl_easy_cleanup};
    std::unique_ptr<curl_slist, decltype(&::curl_slist_free_all)> m_headers{nullptr,
                                                                            &::curl_slist_free_all};
};

std::shared_ptr<Gateway> connectGateway(const json& command)
{
    return std::make_shared<Gateway>(command.at("url").get<std::string>());
}

std::string encodedKey(const std::string& authority, unsigned long number)
{
    return toBase64(authority + "/" + subjectOf(number));
}

/// Calls the function with each text that follows the mark, up to its quotation mark.
template <class Function>
unsigned long forEachText(std::string_view answer, std::string_view mark, const Function& function)
{
    unsigned long count = 0;
    for (std::size_t at = 0; (at = answer.find(mark, at)) != std::string_view::npos; ++count) {
        at += mark.size();
        const std::size_t end = answer.find('"', at);
        function(answer.substr(at, end - at));
        at = end;
    }
    return count;
}

Operation gatewayRead(const json& command)
{
    return [gateway = connectGateway(command), authority = command.at("authority"),
            size = command.at("size").get<unsigned long>(), numbers = Numbers(command)]() mutable {
        const std::string& answer = gateway->post(
            "/v3/kv/range", R"({"key":")" + encodedKey(authority, numbers.next()) + "\"}");
        std::size_t received = 0;
        forEachText(answer, R"("value":")",
                    [&](std::string_view text) { received = fromBase64(text).size(); });
        if (received != size)
            throw std::runtime_error("etcd does not find a value");
    };
}

/// Lists keys page by page. The pattern is a beginning and "*".
Operation gatewayList(const json& command)
{
    const auto pattern = command.at("pattern").get<std::string>();
    const std::string begin =
        command.at("authority").get<std::string>() + "/" + pattern.substr(0, pattern.size() - 1);
    std::string end = begin;
    ++end.back();
    return [gateway = connectGateway(command), begin, end = toBase64(end),
            count = command.at("count").get<unsigned long>()] {
        std::string next = begin;
        unsigned long found = 0;
        for (;;) {
            const std::string& answer = gateway->post(
                "/v3/kv/range",
                fmt::format(R"({{"key":"{}","range_end":"{}","limit":{},"keys_only":true}})",
                            toBase64(next), end, PAGE_RECORDS));
            std::string_view last;
            const unsigned long page =
                forEachText(answer, R"("key":")", [&](std::string_view text) { last = text; });
            found += page;
            if (page < PAGE_RECORDS)
                break;
            next = fromBase64(last) + '\0';
        }
        if (found != count)
            throw std::runtime_error("etcd lists " + std::to_string(found) + " keys");
    };
}

Operation gatewayPut(const json& command)
{
    return [gateway = connectGateway(command), authority = command.at("authority"),
            value = toBase64(payloadOf(command.at("size").get<unsigned long>())),
            numbers = Numbers(command)]() mutable {
        gateway->post("/v3/kv/put", fmt::format(R"({{"key":"{}","value":"{}"}})",
                                                encodedKey(authority, numbers.next()), value));
    };
}

} // namespace

std::map<std::string, Preparation> gatewayOperations()
{
    return {
        {"gateway.read", gatewayRead}, {"gateway.list", gatewayList}, {"gateway.put", gatewayPut}};
}

} // namespace Veltrane::Quillmark::Bench
