#include "tools/velmora/eventdb.h"

#include <sqlite3.h>

#include <algorithm>
#include <stdexcept>

#include "core/json/textwriter.h"

namespace velmora::tool {
namespace {

constexpr const char* kSchema = R"sql(
PRAGMA journal_mode = WAL;
PRAGMA synchronous = NORMAL;
CREATE TABLE IF NOT EXISTS batches(id INTEGER PRIMARY KEY AUTOINCREMENT, received TEXT NOT NULL, events INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS events(id INTEGER PRIMARY KEY AUTOINCREMENT, batch INTEGER NOT NULL, project TEXT NOT NULL,
    guid TEXT NOT NULL, received TEXT NOT NULL, event TEXT NOT NULL);
CREATE INDEX IF NOT EXISTS events_guid ON events(guid);
CREATE TABLE IF NOT EXISTS rejections(id INTEGER PRIMARY KEY, received TEXT NOT NULL, status INTEGER NOT NULL,
    reason TEXT NOT NULL);
)sql";
constexpr const char* kNow = "strftime('%Y-%m-%dT%H:%M:%fZ','now')";
constexpr int kBusyTimeoutMs = 5000;
constexpr int kScriptedStatus = 0;  // of a rejection that the script asked for

[[noreturn]] void fail(sqlite3* db) { throw std::runtime_error(std::string("event store: ") + sqlite3_errmsg(db)); }

void execute(sqlite3* db, const char* sql) {
    if (sqlite3_exec(db, sql, nullptr, nullptr, nullptr) != SQLITE_OK) fail(db);
}

class Statement {
public:
    Statement(sqlite3* db, const std::string& sql) : db_(db) {
        if (sqlite3_prepare_v2(db, sql.c_str(), -1, &statement_, nullptr) != SQLITE_OK) fail(db);
    }
    ~Statement() { sqlite3_finalize(statement_); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    Statement& bind(const std::string& text) {
        const auto length = static_cast<sqlite3_uint64>(text.size());
        if (sqlite3_bind_text64(statement_, ++bound_, text.data(), length, SQLITE_TRANSIENT, SQLITE_UTF8) != SQLITE_OK)
            fail(db_);
        return *this;
    }
    Statement& bind(int64_t number) {
        if (sqlite3_bind_int64(statement_, ++bound_, number) != SQLITE_OK) fail(db_);
        return *this;
    }

    // True for a row, false at the end.
    bool step() {
        const int result = sqlite3_step(statement_);
        if (result != SQLITE_ROW && result != SQLITE_DONE) fail(db_);
        return result == SQLITE_ROW;
    }
    void run() {
        step();
        sqlite3_reset(statement_);
        bound_ = 0;
    }

    int64_t number(int column) { return sqlite3_column_int64(statement_, column); }
    std::string text(int column) {
        const auto* const bytes = reinterpret_cast<const char*>(sqlite3_column_text(statement_, column));
        return {bytes, static_cast<size_t>(sqlite3_column_bytes(statement_, column))};
    }

private:
    sqlite3* const db_;
    sqlite3_stmt* statement_ = nullptr;
    int bound_ = 0;
};

// The conditions of a query, and the values for its question marks in their order.
struct Filter {
    std::string where = " WHERE 1";
    std::vector<std::string> values;

    void add(const std::string& condition, const std::string& value) {
        where += " AND " + condition;
        values.push_back(value);
    }
};

bool isNumber(const std::string& text) {
    return !text.empty() && text.size() < 19 && text.find_first_not_of("0123456789") == std::string::npos;
}

Filter filterOf(const EventQuery& query) {
    Filter filter;
    if (query.project) filter.add("project = ?", *query.project);
    if (query.guid) filter.add("guid = ?", *query.guid);
    if (query.since) filter.add(isNumber(*query.since) ? "id > CAST(? AS INTEGER)" : "received >= ?", *query.since);
    for (const auto& [key, value] : query.data) {
        // Strings compare without their quotes, everything else as JSON text.
        filter.add("? IN (event -> (?), event ->> (?))", value);
        for (int i = 0; i < 2; ++i) filter.values.push_back("$.data.\"" + key + "\"");
    }
    return filter;
}

void writeEvent(TextWriter& writer, Statement& row) {
    writer.StartObject();
    writer.Key("id");
    writer.Int64(row.number(0));
    writer.Key("batch");
    writer.Int64(row.number(1));
    writer.Key("project");
    writer.String(row.text(2));
    writer.Key("guid");
    writer.String(row.text(3));
    writer.Key("received");
    writer.String(row.text(4));
    writer.Key("event");
    const std::string event = row.text(5);
    writer.RawValue(event.data(), event.size(), rapidjson::kObjectType);
    writer.EndObject();
}

int64_t countOf(sqlite3* db, const std::string& sql) {
    Statement statement(db, sql);
    return statement.step() ? statement.number(0) : 0;
}

}  // namespace

void EventDb::Close::operator()(sqlite3* db) const { sqlite3_close(db); }

EventDb::EventDb(const std::string& path) {
    sqlite3* db = nullptr;
    const int opened = sqlite3_open(path.c_str(), &db);
    db_.reset(db);
    if (opened != SQLITE_OK) fail(db);
    sqlite3_busy_timeout(db, kBusyTimeoutMs);
    execute(db, kSchema);
}

EventDb::~EventDb() = default;

void EventDb::addBatch(const std::vector<ReceivedEvent>& events) {
    const std::lock_guard lock(mutex_);
    execute(db_.get(), "BEGIN IMMEDIATE");
    try {
        insertBatchLocked(events);
        execute(db_.get(), "COMMIT");
    } catch (...) {
        sqlite3_exec(db_.get(), "ROLLBACK", nullptr, nullptr, nullptr);
        throw;
    }
}

void EventDb::insertBatchLocked(const std::vector<ReceivedEvent>& events) {
    Statement batch(db_.get(), std::string("INSERT INTO batches(received, events) VALUES(") + kNow + ", ?)");
    batch.bind(static_cast<int64_t>(events.size())).run();
    const int64_t number = sqlite3_last_insert_rowid(db_.get());
    Statement insert(
        db_.get(),
        std::string("INSERT INTO events(batch, project, guid, received, event) VALUES(?, ?, ?, ") + kNow + ", ?)");
    for (const ReceivedEvent& event : events)
        insert.bind(number).bind(event.project).bind(event.guid).bind(event.text).run();
}

void EventDb::addRejection(int status, const std::string& reason) {
    const std::lock_guard lock(mutex_);
    Statement insert(db_.get(),
                     std::string("INSERT INTO rejections(received, status, reason) VALUES(") + kNow + ", ?, ?)");
    insert.bind(static_cast<int64_t>(status)).bind(reason).run();
}

void EventDb::addScripted() { addRejection(kScriptedStatus, "scripted"); }

std::string EventDb::eventsAsJson(const EventQuery& query) {
    const Filter filter = filterOf(query);
    const std::lock_guard lock(mutex_);
    Statement total(db_.get(), "SELECT COUNT(*) FROM events" + filter.where);
    for (const std::string& value : filter.values) total.bind(value);
    total.step();
    Statement rows(db_.get(), "SELECT id, batch, project, guid, received, event FROM events" + filter.where +
                                  " ORDER BY id LIMIT ? OFFSET ?");
    for (const std::string& value : filter.values) rows.bind(value);
    rows.bind(query.limit).bind(query.offset);

    rapidjson::StringBuffer buffer;
    TextWriter writer(buffer);
    writer.StartObject();
    writer.Key("total");
    writer.Int64(total.number(0));
    writer.Key("events");
    writer.StartArray();
    while (rows.step()) writeEvent(writer, rows);
    writer.EndArray();
    writer.EndObject();
    return {buffer.GetString(), buffer.GetSize()};
}

EventStats EventDb::stats() {
    const std::lock_guard lock(mutex_);
    sqlite3* const db = db_.get();
    EventStats stats;
    stats.events = countOf(db, "SELECT COUNT(*) FROM events");
    stats.distinct = countOf(db, "SELECT COUNT(DISTINCT guid) FROM events WHERE guid <> ''") +
                     countOf(db, "SELECT COUNT(*) FROM events WHERE guid = ''");
    stats.batches = countOf(db, "SELECT COUNT(*) FROM batches");
    stats.rejected = countOf(db, "SELECT COUNT(*) FROM rejections WHERE status <> 0");
    stats.scripted = countOf(db, "SELECT COUNT(*) FROM rejections WHERE status = 0");
    return stats;
}

std::unordered_map<std::string, int64_t> EventDb::arrivals() {
    const std::lock_guard lock(mutex_);
    Statement rows(db_.get(), "SELECT guid, COUNT(*) FROM events WHERE guid <> '' GROUP BY guid");
    std::unordered_map<std::string, int64_t> counts;
    while (rows.step()) counts.emplace(rows.text(0), rows.number(1));
    return counts;
}

}  // namespace velmora::tool
