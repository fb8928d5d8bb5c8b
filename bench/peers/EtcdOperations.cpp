// etcd over its own protocol.

#include <memory>
#include <stdexcept>

#include <grpcpp/grpcpp.h>

#include <etcd.grpc.pb.h>

#include "Names.h"
#include "Pages.h"
#include "PeerOperations.h"

namespace Veltrane::Quillmark::Bench {

namespace {

using nlohmann::json;
namespace Etcd = etcdserverpb;

/// One connection, which stays open between the calls.
class Store
{
  public:
    explicit Store(const json& command)
        : m_stub(Etcd::KV::NewStub(::grpc::CreateChannel(command.at("address").get<std::string>(),
                                                         ::grpc::InsecureChannelCredentials())))
    {
    }

    Etcd::RangeResponse range(const Etcd::RangeRequest& request)
    {
        return call<Etcd::RangeResponse>(&Etcd::KV::Stub::Range, request);
    }
    void put(const Etcd::PutRequest& request)
    {
        call<Etcd::PutResponse>(&Etcd::KV::Stub::Put, request);
    }
    void transact(const Etcd::TxnRequest& request)
    {
        call<Etcd::TxnResponse>(&Etcd::KV::Stub::Txn, request);
    }

  private:
    template <class Answer, class Function, class Request>
    Answer call(Function function, const Request& request)
    {
        ::grpc::ClientContext context;
        Answer answer;
        const ::grpc::Status status = (*m_stub.*function)(&context, request, &answer);
        if (!status.ok())
            throw std::runtime_error("etcd answers: " + status.error_message());
        return answer;
    }

    std::unique_ptr<Etcd::KV::Stub> m_stub;
};

std::shared_ptr<Store> connectEtcd(const json& command)
{
    return std::make_shared<Store>(command);
}

std::string keyIn(const std::string& authority, unsigned long number)
{
    return authority + "/" + subjectOf(number);
}

Operation etcdRead(const json& command)
{
    return [store = connectEtcd(command), authority = command.at("authority").get<std::string>(),
            size = command.at("size").get<unsigned long>(), numbers = Numbers(command)]() mutable {
        Etcd::RangeRequest request;
        request.set_key(keyIn(authority, numbers.next()));
        const Etcd::RangeResponse answer = store->range(request);
        if (answer.kvs_size() != 1 || answer.kvs(0).value().size() != size)
            throw std::runtime_error("etcd does not find a value");
    };
}

/// Lists keys page by page. The pattern is a beginning and "*".
Operation etcdList(const json& command)
{
    const auto pattern = command.at("pattern").get<std::string>();
    const std::string begin =
        command.at("authority").get<std::string>() + "/" + pattern.substr(0, pattern.size() - 1);
    return [store = connectEtcd(command), begin, count = command.at("count").get<unsigned long>()] {
        Etcd::RangeRequest request;
        request.set_key(begin);
        std::string end = begin;
        ++end.back();
        request.set_range_end(end);
        request.set_limit(PAGE_RECORDS);
        request.set_keys_only(true);
        unsigned long found = 0;
        for (;;) {
            const Etcd::RangeResponse page = store->range(request);
            const auto size = static_cast<unsigned long>(page.kvs_size());
            found += size;
            if (size < PAGE_RECORDS)
                break;
            request.set_key(page.kvs(page.kvs_size() - 1).key() + '\0');
        }
        if (found != count)
            throw std::runtime_error("etcd lists " + std::to_string(found) + " keys");
    };
}

Operation etcdPut(const json& command)
{
    Etcd::PutRequest request;
    request.set_value(payloadOf(command.at("size").get<unsigned long>()));
    return [store = connectEtcd(command), authority = command.at("authority").get<std::string>(),
            request, numbers = Numbers(command)]() mutable {
        request.set_key(keyIn(authority, numbers.next()));
        store->put(request);
    };
}

/// Puts the values from "first" on, "count" of them, in transactions.
Operation etcdFill(const json& command)
{
    return [store = connectEtcd(command), authority = command.at("authority").get<std::string>(),
            value = payloadOf(command.at("size").get<unsigned long>()),
            first = command.at("first").get<unsigned long>(),
            count = command.at("count").get<unsigned long>()] {
        // etcd has limits for the operations and for the bytes of a transaction.
        const unsigned long together = std::clamp(PAGE_BYTES / value.size(), 1ul, 100ul);
        unsigned long number = first;
        forEachPage(count, together, [&](unsigned long size) {
            Etcd::TxnRequest request;
            for (const unsigned long end = number + size; number < end; ++number) {
                Etcd::PutRequest& put = *request.add_success()->mutable_request_put();
                put.set_key(keyIn(authority, number));
                put.set_value(value);
            }
            store->transact(request);
        });
    };
}

} // namespace

std::map<std::string, Preparation> etcdOperations()
{
    return {{"etcd.read", etcdRead},
            {"etcd.list", etcdList},
            {"etcd.put", etcdPut},
            {"etcd.fill", etcdFill}};
}

} // namespace Veltrane::Quillmark::Bench
