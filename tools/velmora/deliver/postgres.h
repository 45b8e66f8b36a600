// A connection to PostgreSQL that never waits longer than its limit.
#pragma once

#include <libpq-fe.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "tools/velmora/deliver/target.h"

namespace velmora::tool {

// The database answers, but refuses. isAboutData(): what was sent can't be stored as it is, however often it is tried.
class PostgresError : public std::runtime_error {
public:
    PostgresError(const std::string& text, std::string state) : std::runtime_error(text), state_(std::move(state)) {}
    [[nodiscard]] const std::string& state() const { return state_; }  // five characters
    [[nodiscard]] bool isAboutData() const;

private:
    std::string state_;
};

// An array of values in PostgreSQL's binary form, for a parameter.
class BinaryArray {
public:
    enum Type : uint32_t { kText = 25, kDate = 1082, kTimestamp = 1184, kJsonb = 3802 };  // numbers of pg_type

    BinaryArray(Type type, size_t count);

    void addNull();
    void addInt32(int32_t value);
    void addInt64(int64_t value);
    void addText(std::string_view text);
    void addJsonb(std::string_view text);  // checked by the database when it arrives

    [[nodiscard]] const std::string& bytes() const { return bytes_; }

private:
    void putInt32(uint32_t value);

    std::string bytes_;
};

// Throws TargetAway if the database is not there, does not answer within the limit or is short of something, and
// PostgresError for what it refuses. After TargetAway the connection is closed; connect() opens it again.
//
// Threads: one at a time.
class Postgres {
public:
    struct ResultDeleter {
        void operator()(PGresult* result) const { PQclear(result); }
    };
    using Result = std::unique_ptr<PGresult, ResultDeleter>;
    using Arrays = std::vector<const BinaryArray*>;

    Postgres(std::string uri, std::chrono::milliseconds limit);
    ~Postgres() { close(); }
    Postgres(const Postgres&) = delete;
    Postgres& operator=(const Postgres&) = delete;

    // Nothing happens if it is open. Throws std::runtime_error if the database is up but does not let this user in.
    void open();
    void close();

    // Runs statements without parameters in one transaction, unless they say otherwise.
    void run(const std::string& statements);
    // Runs one statement with texts for its parameters.
    Result run(const std::string& statement, const std::vector<std::string>& texts);

    // Begins statements that are one transaction: each result is asked for by results(), in the order of the calls.
    void send(const std::string& statement, const Arrays& arrays = {});
    void commit();
    // Waits until the transaction is committed; the result of its last statement. Throws the first failure: then
    // nothing of it has happened.
    Result results();

private:
    void flush();
    void waitFor(bool toWrite);
    Result next();
    Result collect();
    [[noreturn]] void failAway(const std::string& what);
    void begin();

    const std::string uri_;
    const std::chrono::milliseconds limit_;
    PGconn* connection_ = nullptr;
    std::chrono::steady_clock::time_point deadline_;  // of what is being waited for
};

}  // namespace velmora::tool
