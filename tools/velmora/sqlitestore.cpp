#include "tools/velmora/sqlitestore.h"

#include <SQLiteCpp/Statement.h>
#include <SQLiteCpp/Transaction.h>

#include <nlohmann/json.hpp>
#include <stdexcept>

namespace velmora::tool {
namespace {

constexpr const char* kSchema = R"sql(
PRAGMA journal_mode = WAL;
PRAGMA synchronous = NORMAL;
CREATE TABLE IF NOT EXISTS batches(id INTEGER PRIMARY KEY AUTOINCREMENT, received TEXT NOT NULL, events INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS events(id INTEGER PRIMARY KEY AUTOINCREMENT, batch INTEGER NOT NULL, project TEXT NOT NULL,
    guid TEXT NOT NULL, received TEXT NOT NULL, event TEXT NOT NULL);
CREATE INDEX IF NOT EXISTS events_guid ON events(guid);
CREATE TABLE IF NOT EXISTS rejections(id INTEGER PRIMARY KEY AUTOINCREMENT, received TEXT NOT NULL, status INTEGER NOT NULL,
    reason TEXT NOT NULL);
)sql";
// Files of earlier versions have no user_version and lack these.
constexpr const char* kSecondVersion = R"sql(
ALTER TABLE rejections ADD COLUMN remote TEXT NOT NULL DEFAULT '';
ALTER TABLE rejections ADD COLUMN bytes INTEGER NOT NULL DEFAULT 0;
CREATE INDEX IF NOT EXISTS events_batch ON events(batch);
PRAGMA user_version = 2;
)sql";
constexpr int kBusyTimeoutMs = 5000;
constexpr size_t kMaxBatchesAtOnce = 256;
constexpr size_t kMaxPendingRejections = 10000;

// What SQLite complains of, in the tool's words.
template <typename Body>
auto guarded(Body body) {
    try {
        return body();
    } catch (const SQLite::Exception& error) {
        throw std::runtime_error(std::string("event store: ") + error.what());
    }
}

SQLite::Database openFile(const std::string& path) {
    return guarded([&] {
        SQLite::Database database(path, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE, kBusyTimeoutMs);
        database.exec(kSchema);
        SQLite::Transaction transaction(database, SQLite::TransactionBehavior::IMMEDIATE);
        if (database.execAndGet("PRAGMA user_version").getInt() < 2) database.exec(kSecondVersion);
        transaction.commit();
        return database;
    });
}

std::string quoted(const std::string& text) {
    return nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

// The conditions of a query, and the values for its question marks in their order.
struct Filter {
    std::string where = " WHERE 1";
    std::vector<std::string> values;

    void add(const std::string& condition, std::initializer_list<std::string> bound) {
        where += " AND " + condition;
        values.insert(values.end(), bound);
    }
};

bool isNumber(const std::string& text) {
    return !text.empty() && text.size() < 19 && text.find_first_not_of("0123456789") == std::string::npos;
}

// Strings compare without their quotes, everything else as JSON text.
void addData(Filter& filter, const std::string& key, const std::string& value) {
    const std::string path = "$.data.\"" + key + "\"";
    if (value == "*")
        filter.add("json_type(event, ?) IS NOT NULL", {path});
    else if (value.starts_with('!'))
        filter.add("coalesce(? NOT IN (event -> (?), event ->> (?)), 1)", {value.substr(1), path, path});
    else
        filter.add("? IN (event -> (?), event ->> (?))", {value, path, path});
}

std::string likePattern(const std::string& text) {
    std::string pattern = "%";
    for (const char c : text) {
        if (c == '%' || c == '_' || c == '\\') pattern += '\\';
        pattern += c;
    }
    return pattern + "%";
}

Filter filterOf(const EventQuery& query) {
    Filter filter;
    if (query.project) filter.add("project = ?", {*query.project});
    if (query.guid) filter.add("guid = ?", {*query.guid});
    if (query.batch) filter.add("batch = " + std::to_string(*query.batch), {});
    if (query.since) filter.add(isNumber(*query.since) ? "id > CAST(? AS INTEGER)" : "received >= ?", {*query.since});
    if (query.after) filter.add("id > " + std::to_string(*query.after), {});
    if (query.before) filter.add("id < " + std::to_string(*query.before), {});
    if (query.signedIn) {
        filter.add(
            std::string("coalesce(event ->> '$.data.\"event.user_guid\"', '') ") + (*query.signedIn ? "<> ''" : "= ''"),
            {});
    }
    if (query.text) filter.add("event LIKE ? ESCAPE '\\'", {likePattern(*query.text)});
    for (const auto& [key, value] : query.data) addData(filter, key, value);
    return filter;
}

SQLite::Statement prepare(SQLite::Database& database, const std::string& sql, const Filter& filter) {
    SQLite::Statement statement(database, sql);
    int place = 0;
    for (const std::string& value : filter.values) statement.bind(++place, value);
    return statement;
}

std::string eventAsJson(SQLite::Statement& row) {
    return "{\"id\":" + row.getColumn(0).getString() + ",\"batch\":" + row.getColumn(1).getString() +
           ",\"project\":" + quoted(row.getColumn(2).getString()) +
           ",\"guid\":" + quoted(row.getColumn(3).getString()) + ",\"received\":\"" + row.getColumn(4).getString() +
           "\",\"event\":" + row.getColumn(5).getString() + "}";
}

int64_t numberOf(SQLite::Database& database, const std::string& sql) { return database.execAndGet(sql).getInt64(); }

}  // namespace

SqliteStore::SqliteStore(const std::string& path, uint64_t maxPendingBytes)
    : maxPendingBytes_(maxPendingBytes), writer_(openFile(path)), reader_(openFile(path)) {
    thread_ = std::thread([this] { runWriter(); });
}

SqliteStore::~SqliteStore() { stop(); }

void SqliteStore::append(std::shared_ptr<const Batch> batch, Completion done) noexcept {
    const uint64_t bytes = batch->body.size();
    AppendResult refusal;
    {
        const MutexLock lock(mutex_);
        if (!stopping_ && pendingBytes_ + bytes <= maxPendingBytes_) {
            pendingBytes_ += bytes;
            ++queued_;
            pending_.push_back({std::move(batch), std::move(done)});
            wake_.notifyOne();
            return;
        }
        refusal = stopping_ ? AppendResult{AppendOutcome::away, "the event store is closed"}
                            : AppendResult{AppendOutcome::full, "the event store can't keep up"};
    }
    done(refusal);
}

bool SqliteStore::ready(std::string& why) const {
    const MutexLock lock(mutex_);
    why = stopping_ ? "the event store is closed" : failure_;
    return why.empty();
}

StoreFigures SqliteStore::figures() const {
    const MutexLock lock(mutex_);
    return {{"store_pending_batches", pending_.size()}, {"store_pending_bytes", pendingBytes_}};
}

void SqliteStore::stop() noexcept {
    {
        const MutexLock lock(mutex_);
        stopping_ = true;
    }
    wake_.notifyAll();
    if (thread_.joinable()) thread_.join();
}

SqliteStore::Work SqliteStore::takeWorkLocked() {
    Work work;
    work.rejections.swap(rejections_);
    while (!pending_.empty() && work.batches.size() < kMaxBatchesAtOnce) {
        work.batches.push_back(std::move(pending_.front()));
        pending_.pop_front();
    }
    return work;
}

void SqliteStore::runWriter() {
    while (true) {
        Work work;
        {
            const MutexLock lock(mutex_);
            wake_.wait(mutex_, [this]() VELMORA_REQUIRES(mutex_) {
                return stopping_ || !pending_.empty() || !rejections_.empty();
            });
            work = takeWorkLocked();
        }
        if (work.batches.empty() && work.rejections.empty()) return;
        const AppendResult result = write(work);
        for (const Pending& pending : work.batches) pending.done(result);
        noteWritten(work, result);
    }
}

void SqliteStore::noteWritten(const Work& work, const AppendResult& result) {
    const MutexLock lock(mutex_);
    failure_ = result.reason;
    done_ += work.batches.size() + work.rejections.size();
    if (!failure_.empty()) lostRejections_ += work.rejections.size();
    for (const Pending& pending : work.batches) pendingBytes_ -= pending.batch->body.size();
    written_.notifyAll();
}

AppendResult SqliteStore::write(const Work& work) noexcept {
    try {
        SQLite::Transaction transaction(writer_, SQLite::TransactionBehavior::IMMEDIATE);
        const std::string now = writer_.execAndGet("SELECT strftime('%Y-%m-%dT%H:%M:%fZ','now')").getString();
        insertBatches(work, now);
        insertRejections(work, now);
        transaction.commit();
        return {};
    } catch (const std::exception& error) {
        return {AppendOutcome::away, std::string("event store: ") + error.what()};
    }
}

void SqliteStore::insertBatches(const Work& work, const std::string& now) {
    SQLite::Statement batch(writer_, "INSERT INTO batches(received, events) VALUES(?, ?)");
    SQLite::Statement event(writer_, "INSERT INTO events(batch, project, guid, received, event) VALUES(?, ?, ?, ?, ?)");
    std::string text;
    for (const Pending& pending : work.batches) {
        batch.bindNoCopy(1, now);
        batch.bind(2, static_cast<int64_t>(pending.batch->events.size()));
        batch.exec();
        batch.reset();
        const int64_t number = writer_.getLastInsertRowid();
        for (const ReceivedEvent& received : pending.batch->events) {
            text = received.text;
            event.bind(1, number);
            event.bindNoCopy(2, received.project);
            event.bindNoCopy(3, received.guid);
            event.bindNoCopy(4, now);
            event.bindNoCopy(5, text);
            event.exec();
            event.reset();
        }
    }
}

void SqliteStore::insertRejections(const Work& work, const std::string& now) {
    if (work.rejections.empty()) return;
    SQLite::Statement insert(writer_,
                             "INSERT INTO rejections(received, status, reason, remote, bytes) VALUES(?, ?, ?, ?, ?)");
    for (const RejectionRecord& rejection : work.rejections) {
        insert.bindNoCopy(1, now);
        insert.bind(2, rejection.status);
        insert.bindNoCopy(3, rejection.reason);
        insert.bindNoCopy(4, rejection.remote);
        insert.bind(5, static_cast<int64_t>(rejection.bytes));
        insert.exec();
        insert.reset();
    }
}

void SqliteStore::addRejection(RejectionRecord rejection) {
    const MutexLock lock(mutex_);
    if (stopping_ || rejections_.size() >= kMaxPendingRejections) {
        ++lostRejections_;
        return;
    }
    ++queued_;
    rejections_.push_back(std::move(rejection));
    wake_.notifyOne();
}

// Until what was taken before is written, so that a client finds what it was told of.
void SqliteStore::waitForWriter() {
    const MutexLock lock(mutex_);
    const uint64_t wanted = queued_;
    written_.wait(mutex_, [&]() VELMORA_REQUIRES(mutex_) { return done_ >= wanted; });
}

int64_t SqliteStore::readEvents(const EventQuery& query, int64_t limit,
                                const std::function<void(std::string_view)>& sink) {
    const Filter filter = filterOf(query);
    const std::string sql = "SELECT id, batch, project, guid, received, event FROM events" + filter.where +
                            " ORDER BY id" + (query.newestFirst ? " DESC" : "") + " LIMIT " + std::to_string(limit) +
                            " OFFSET " + std::to_string(query.offset);
    return guarded([&] {
        const MutexLock lock(readMutex_);
        SQLite::Statement rows = prepare(reader_, sql, filter);
        int64_t last = 0;
        for (; rows.executeStep(); last = rows.getColumn(0).getInt64()) sink(eventAsJson(rows));
        return last;
    });
}

int64_t SqliteStore::countEvents(const EventQuery& query) {
    const Filter filter = filterOf(query);
    return guarded([&] {
        const MutexLock lock(readMutex_);
        SQLite::Statement row = prepare(reader_, "SELECT COUNT(*) FROM events" + filter.where, filter);
        row.executeStep();
        return row.getColumn(0).getInt64();
    });
}

int64_t SqliteStore::readRejections(int64_t since, int64_t limit, const std::function<void(std::string_view)>& sink) {
    waitForWriter();
    return guarded([&] {
        const MutexLock lock(readMutex_);
        SQLite::Statement rows(reader_,
                               "SELECT id, received, status, reason, remote, bytes FROM rejections WHERE id > ? AND "
                               "status <> 0 ORDER BY id LIMIT ?");
        rows.bind(1, since);
        rows.bind(2, limit);
        int64_t last = 0;
        while (rows.executeStep()) {
            last = rows.getColumn(0).getInt64();
            sink("{\"id\":" + std::to_string(last) + ",\"received\":\"" + rows.getColumn(1).getString() +
                 "\",\"status\":" + rows.getColumn(2).getString() + ",\"reason\":" +
                 quoted(rows.getColumn(3).getString()) + ",\"remote\":" + quoted(rows.getColumn(4).getString()) +
                 ",\"bytes\":" + rows.getColumn(5).getString() + "}");
        }
        return last;
    });
}

EventStats SqliteStore::stats() {
    waitForWriter();
    uint64_t lost = 0;
    {
        const MutexLock lock(mutex_);
        lost = lostRejections_;
    }
    return guarded([&] {
        const MutexLock lock(readMutex_);
        // Counting distinct guids takes time, and an answer is often asked for again before anything has arrived.
        const int64_t batch = numberOf(reader_, "SELECT coalesce(MAX(id), 0) FROM batches");
        if (batch != lastBatch_) {
            lastBatch_ = batch;
            lastStats_.batches = numberOf(reader_, "SELECT COUNT(*) FROM batches");
            lastStats_.events = numberOf(reader_, "SELECT COUNT(*) FROM events");
            lastStats_.distinct = numberOf(reader_, "SELECT COUNT(DISTINCT guid) FROM events WHERE guid <> ''") +
                                  numberOf(reader_, "SELECT COUNT(*) FROM events WHERE guid = ''");
            lastStats_.lastEvent = numberOf(reader_, "SELECT coalesce(MAX(id), 0) FROM events");
        }
        EventStats stats = lastStats_;
        stats.rejected =
            numberOf(reader_, "SELECT COUNT(*) FROM rejections WHERE status <> 0") + static_cast<int64_t>(lost);
        stats.scripted = numberOf(reader_, "SELECT COUNT(*) FROM rejections WHERE status = 0");
        stats.lastRejection = numberOf(reader_, "SELECT coalesce(MAX(id), 0) FROM rejections");
        return stats;
    });
}

void SqliteStore::clear() {
    waitForWriter();
    guarded([&] {
        const MutexLock lock(readMutex_);
        reader_.exec("BEGIN IMMEDIATE; DELETE FROM events; DELETE FROM batches; DELETE FROM rejections; COMMIT");
        lastBatch_ = -1;
    });
}

std::unordered_map<std::string, int64_t> SqliteStore::arrivals() {
    return guarded([&] {
        const MutexLock lock(readMutex_);
        SQLite::Statement rows(reader_, "SELECT guid, COUNT(*) FROM events WHERE guid <> '' GROUP BY guid");
        std::unordered_map<std::string, int64_t> counts;
        while (rows.executeStep()) counts.emplace(rows.getColumn(0).getString(), rows.getColumn(1).getInt64());
        return counts;
    });
}

std::unique_ptr<Store> openStore(const StoreOptions& options) {
    if (options.target.starts_with("jetstream:")) return openJetStreamStore(options);
    return std::make_unique<SqliteStore>(options.target, options.maxPendingBytes);
}

}  // namespace velmora::tool
