#ifndef VANTRY_BENCHMARKS_HAND_OVER_H
#define VANTRY_BENCHMARKS_HAND_OVER_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Tables.h"

namespace bench {

// What a provider tells its consumer.
struct Message {
    std::int32_t size = 0;
    char name[60] = {};
};

void WriteAll(int descriptor, const void* bytes, std::size_t size);
// False at the end of the pipe.
bool ReadAll(int descriptor, void* bytes, std::size_t size);

// A consumer in a process of its own. It is sent a message, answers with the sum over all the values that it
// read, and once more when it has given the result back.
class ConsumerProcess {
public:
    ConsumerProcess(const std::string& way, const Table& table, std::size_t rows, const std::string& path);
    ConsumerProcess(const ConsumerProcess&) = delete;
    ConsumerProcess& operator=(const ConsumerProcess&) = delete;
    ~ConsumerProcess();

    int Requests() const { return m_requests; }
    std::int64_t WaitForSum();
    void WaitForRelease();

private:
    pid_t m_process = -1;
    int m_requests = -1;
    int m_answers = -1;
};

// One way of a result from a provider to a consumer.
class Way {
public:
    Way() = default;
    Way(const Way&) = delete;
    Way& operator=(const Way&) = delete;
    virtual ~Way() = default;

    // The provider's side: gets what it will hand over, hands it over, gives it back.
    virtual void Query(const std::string& /*path*/, const Table& /*table*/, std::size_t /*rows*/) {}
    virtual void Provide(int requests) = 0;
    virtual void Release() {}

    // The consumer's side, in the other process.
    virtual void OpenConsumer(const std::string& /*path*/, const Table& /*table*/, std::size_t /*rows*/) {}
    virtual std::int64_t Consume(const Message& message, int requests) = 0;
    virtual void ReleaseConsumed() {}
};

const std::vector<std::string>& WayNames();
std::unique_ptr<Way> MakeWay(const std::string& name);

}  // namespace bench

#endif
