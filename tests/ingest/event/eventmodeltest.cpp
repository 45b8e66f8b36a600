#include "ingest/event/eventmodel.h"

#include <gtest/gtest.h>

#include "core/types/errors.h"
#include "ingest/event/debugcounters.h"
#include "ingest/event/metaevent.h"

namespace velmora {
namespace {

using debug::Action;
using debug::Item;
using debug::Reason;

DebugCounters exampleCounters() { return DebugCounters("7", {0, 1, 0, 0, 20}); }

constexpr char kExampleDebug[] = R"("entity.debug":{"cache":{"7":{"namespace":"primary",)"
                                 R"("auth_invalid":{"event":{"saved":{"success":1,"total":1}}},)"
                                 R"("anon":{"event":{"saved":{"success":20,"total":20}}}}}})";

TEST(DebugCounters, WritesWhatIsNotZeroWithTotalsAndLeavesEmptyBranchesOut) {
    DebugCounters counters("7", {});
    counters.add("7", PipelineKind::auth, Item::event, Action::rejected, Reason::opt_out, 2);
    counters.add("7", PipelineKind::auth, Item::event, Action::rejected, Reason::validation, 1);
    counters.add("7", PipelineKind::auth, Item::event, Action::rejected, Reason::opt_out, 3);
    counters.add("7", PipelineKind::auth, Item::http, Action::request, Reason::error, 0);
    counters.add("12", PipelineKind::meta, Item::http, Action::request, Reason::success, 4);
    counters.add("13", PipelineKind::meta, Item::http, Action::request, Reason::success, 0);
    std::string json;
    JsonWriter writer(&json);
    writeDebugCounts(writer, "7", counters.snapshot());
    writer.finish();
    EXPECT_EQ(json,
              R"({"entity.debug":{"cache":{)"
              R"("12":{"namespace":"secondary","meta":{"http":{"request":{"success":4,"total":4}}}},)"
              R"("13":{"namespace":"secondary"},)"
              R"("7":{"namespace":"primary","auth":{"event":{"rejected":{"validation":1,"opt-out":5,"total":6}}}}}}})");
}

TEST(MetaEvent, HasItsKeysInOrder) {
    const std::error_code timeout = VelmoraError::timeout;
    const std::error_code success;
    const struct {
        const char* what;
        MetaEvent event;
        std::string json;
    } rows[] = {
        {"init", MetaEvent::makeInit(SourceType::host, "guid-1", exampleCounters()),
         R"({"event.workflow":"Lifecycle","event.subcategory":"Host","event.type":"success","event.subtype":"init",)"
         R"("entity.config":{"guid":"guid-1"},)" +
             std::string(kExampleDebug) + "}"},
        {"api error", MetaEvent::makeApiResult("oswin", timeout, ""),
         R"({"event.workflow":"Velmora","event.subcategory":"oswin","event.type":"api","event.subtype":"error",)"
         R"("event.error_code":"17","event.error_desc":")" +
             timeout.message() + R"("})"},
        {"api success", MetaEvent::makeApiResult("", success, "fine"),
         R"({"event.workflow":"Velmora","event.type":"api","event.subtype":"success","event.error_desc":"fine"})"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(row.event.json(), row.json);
    }
}

}  // namespace
}  // namespace velmora
