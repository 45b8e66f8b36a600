#include "tools/velmora/deliver/postgrestarget.h"

#include <charconv>
#include <chrono>
#include <cstdio>
#include <thread>

#include "tools/velmora/jetstream/eventaddress.h"

namespace velmora::tool {
namespace {

constexpr std::chrono::seconds kAnswerLimit(60);
constexpr auto kRetryPause = std::chrono::milliseconds(500);
constexpr int kMaxDaysOff = 366;
constexpr int32_t kPostgresEpochDay = 10957;  // 2000-01-01
constexpr int64_t kPostgresEpochMicros = 946684800LL * 1000000;

// Held shared by whoever stores events, alone by whoever forgets a user or changes a table.
#define VELMORA_DATABASE_LOCK "7386925118"

constexpr char kSchema[] =
    "BEGIN; SELECT pg_advisory_xact_lock(" VELMORA_DATABASE_LOCK
    ");"
    "CREATE TABLE IF NOT EXISTS velmora_events (day date NOT NULL, time timestamptz, project text NOT NULL,"
    " environment text NOT NULL, \"user\" text, guid text NOT NULL, event jsonb NOT NULL,"
    " UNIQUE (day, guid, project)) PARTITION BY RANGE (day);"
    "CREATE TABLE IF NOT EXISTS velmora_events_default PARTITION OF velmora_events DEFAULT;"
    "CREATE INDEX IF NOT EXISTS velmora_events_user ON velmora_events (\"user\") WHERE \"user\" IS NOT NULL;"
    "CREATE TABLE IF NOT EXISTS velmora_set_aside (hash text PRIMARY KEY, received timestamptz NOT NULL DEFAULT now(),"
    " reason text NOT NULL, \"user\" bytea, event bytea NOT NULL);"
    "CREATE TABLE IF NOT EXISTS velmora_forgotten (user_hash bytea PRIMARY KEY, forgotten timestamptz NOT NULL);"
    "COMMIT";

constexpr char kLockShared[] = "SELECT pg_advisory_xact_lock_shared(" VELMORA_DATABASE_LOCK ")";

constexpr char kInsert[] =
    "INSERT INTO velmora_events (day, time, project, environment, \"user\", guid, event)"
    " SELECT e.day, e.time, e.project, e.environment, e.name, e.guid, e.event"
    " FROM unnest($1::date[], $2::timestamptz[], $3::text[], $4::text[], $5::text[], $6::text[], $7::jsonb[],"
    " $8::timestamptz[]) AS e(day, time, project, environment, name, guid, event, published)"
    " WHERE NOT EXISTS (SELECT FROM velmora_forgotten f WHERE e.name IS NOT NULL"
    " AND f.user_hash = sha256(convert_to(e.name, 'UTF8')) AND e.published <= f.forgotten)"
    " ON CONFLICT DO NOTHING";

constexpr char kSetAside[] =
    "INSERT INTO velmora_set_aside (hash, reason, \"user\", event)"
    " SELECT $1, $2, decode($3, 'hex'), decode($4, 'hex')"
    " WHERE NOT EXISTS (SELECT FROM velmora_forgotten WHERE user_hash = sha256(decode($3, 'hex'))"
    " AND to_timestamp($5::double precision) <= forgotten)"
    " ON CONFLICT DO NOTHING";

// $1 the user. The moment is taken once nobody stores events any more.
constexpr char kForget[] =
    "WITH remembered AS (INSERT INTO velmora_forgotten VALUES (sha256(convert_to($1, 'UTF8')), clock_timestamp())"
    " ON CONFLICT (user_hash) DO UPDATE SET forgotten = excluded.forgotten),"
    " aside AS (DELETE FROM velmora_set_aside WHERE \"user\" = convert_to($1, 'UTF8') RETURNING 1),"
    " gone AS (DELETE FROM velmora_events WHERE \"user\" = $1 RETURNING 1)"
    " SELECT (SELECT count(*) FROM gone) + (SELECT count(*) FROM aside)";

std::chrono::year_month_day dateOf(int32_t day) { return std::chrono::sys_days(std::chrono::days(day)); }

std::string dateText(int32_t day, const char* format) {
    const std::chrono::year_month_day date = dateOf(day);
    char text[32];
    std::snprintf(text, sizeof text, format, static_cast<int>(date.year()), static_cast<unsigned>(date.month()),
                  static_cast<unsigned>(date.day()));
    return text;
}

bool isNear(int32_t day) {
    const auto now = std::chrono::floor<std::chrono::days>(std::chrono::system_clock::now()).time_since_epoch();
    return std::abs(day - static_cast<int32_t>(now.count())) <= kMaxDaysOff;
}

// Makes the partition of a day, and moves there what has come for that day while it was far off.
std::string partitionStatements(int32_t day) {
    const std::string name = "velmora_events_" + dateText(day, "%04d%02u%02u");
    const std::string first = dateText(day, "'%04d-%02u-%02u'");
    const std::string next = dateText(day + 1, "'%04d-%02u-%02u'");
    return "DO $velmora$ BEGIN PERFORM pg_advisory_xact_lock(" VELMORA_DATABASE_LOCK
           ");"
           " IF to_regclass('" +
           name + "') IS NULL THEN CREATE TABLE " + name + " (LIKE velmora_events INCLUDING ALL); INSERT INTO " + name +
           " SELECT * FROM velmora_events_default WHERE day = " + first +
           "; DELETE FROM velmora_events_default WHERE day = " + first +
           "; ALTER TABLE velmora_events ATTACH PARTITION " + name + " FOR VALUES FROM (" + first + ") TO (" + next +
           "); END IF; END $velmora$";
}

uint64_t toCount(const char* text) {
    uint64_t count = 0;
    std::from_chars(text, text + std::char_traits<char>::length(text), count);
    return count;
}

std::string hexOf(std::string_view bytes) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string hex;
    hex.reserve(bytes.size() * 2);
    for (const char c : bytes) {
        hex += kDigits[static_cast<unsigned char>(c) >> 4];
        hex += kDigits[static_cast<unsigned char>(c) & 15];
    }
    return hex;
}

// jsonb holds every character but U+0000: U+FFFD takes its place.
std::string withoutNulls(std::string_view json) {
    constexpr std::string_view kNull = "u0000";
    std::string text(json);
    for (size_t at = text.find('\\'); at != std::string::npos; at = text.find('\\', at + 2)) {
        if (text.compare(at + 1, kNull.size(), kNull) == 0) text.replace(at + 1, kNull.size(), "ufffd");
    }
    return text;
}

void addTime(BinaryArray& array, const std::optional<int64_t>& micros) {
    if (micros)
        array.addInt64(*micros - kPostgresEpochMicros);
    else
        array.addNull();
}

}  // namespace

PostgresTarget::PostgresTarget(const std::string& uri, std::chrono::milliseconds patience)
    : database_(uri, kAnswerLimit) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    for (;;) {
        try {
            database_.run(kSchema);
            return;
        } catch (const TargetAway&) {
            if (std::chrono::steady_clock::now() >= deadline) throw;
        } catch (const PostgresError& error) {
            throw std::runtime_error(std::string(error.what()) +
                                     "; the user needs the right to make tables in the "
                                     "database's schema, once: GRANT CREATE ON SCHEMA ... TO ...");
        }
        std::this_thread::sleep_for(kRetryPause);
    }
}

void PostgresTarget::begin(const Delivery& delivery) {
    rows_.clear();
    for (const EventRow& row : delivery.rows) rows_.push_back(&row);
    makePartitions(rows_);
    send(rows_);
}

DeliveryCounts PostgresTarget::finish() {
    try {
        return results(rows_);
    } catch (const PostgresError& error) {
        if (!error.isAboutData()) throw;
        return storeInParts(rows_);
    }
}

void PostgresTarget::makePartitions(const Rows& rows) {
    for (const EventRow* row : rows) {
        if (partitions_.count(row->day) > 0 || !isNear(row->day)) continue;
        database_.run(partitionStatements(row->day));
        partitions_.insert(row->day);
    }
}

void PostgresTarget::send(const Rows& rows) {
    const size_t count = rows.size();
    BinaryArray day(BinaryArray::kDate, count);
    BinaryArray time(BinaryArray::kTimestamp, count);
    BinaryArray project(BinaryArray::kText, count);
    BinaryArray environment(BinaryArray::kText, count);
    BinaryArray user(BinaryArray::kText, count);
    BinaryArray guid(BinaryArray::kText, count);
    BinaryArray event(BinaryArray::kJsonb, count);
    BinaryArray published(BinaryArray::kTimestamp, count);
    for (const EventRow* row : rows) {
        day.addInt32(row->day - kPostgresEpochDay);
        addTime(time, row->time);
        project.addText(row->project);
        environment.addText(row->environment);
        if (row->user)
            user.addText(*row->user);
        else
            user.addNull();
        guid.addText(row->guid);
        event.addJsonb(withoutNulls(row->text));
        addTime(published, row->published);
    }
    database_.send(kLockShared);
    database_.send(kInsert, {&day, &time, &project, &environment, &user, &guid, &event, &published});
    database_.commit();
}

DeliveryCounts PostgresTarget::results(const Rows& rows) {
    const Postgres::Result result = database_.results();
    DeliveryCounts counts;
    counts.stored = toCount(PQcmdTuples(result.get()));
    counts.repeated = rows.size() - counts.stored;
    return counts;
}

// One of them can't be stored: halves, until it stands alone.
DeliveryCounts PostgresTarget::storeInParts(const Rows& rows) {
    DeliveryCounts counts;
    const auto middle = rows.begin() + static_cast<std::ptrdiff_t>(rows.size() / 2);
    for (const Rows& half : {Rows(rows.begin(), middle), Rows(middle, rows.end())}) {
        if (half.empty()) continue;
        try {
            send(half);
            counts += results(half);
        } catch (const PostgresError& error) {
            if (!error.isAboutData()) throw;
            counts += half.size() > 1 ? storeInParts(half) : setAside(*half.front(), error.what());
        }
    }
    return counts;
}

DeliveryCounts PostgresTarget::setAside(const EventRow& row, const std::string& reason) {
    const auto result =
        database_.run(kSetAside, {sha256Hex(std::string(row.text)), reason, hexOf(row.user.value_or("")),
                                  hexOf(row.text), std::to_string(static_cast<double>(row.published) / 1e6)});
    DeliveryCounts counts;
    counts.setAside = toCount(PQcmdTuples(result.get()));
    counts.repeated = 1 - counts.setAside;
    return counts;
}

uint64_t PostgresTarget::forget(const std::string& user) {
    database_.run("BEGIN; SELECT pg_advisory_xact_lock(" VELMORA_DATABASE_LOCK ")");
    const auto result = database_.run(kForget, {user});
    const uint64_t count = toCount(PQgetvalue(result.get(), 0, 0));
    database_.run("COMMIT");
    return count;
}

}  // namespace velmora::tool
