// The floors' steps on JSON: what somebody who knows the library's job would write with RapidJSON alone.
#pragma once

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <string>

namespace velmora::bench {

inline void mergeByHand(rapidjson::Value& data, const rapidjson::Value& extra,
                        rapidjson::Document::AllocatorType& allocator) {
    for (const auto& [name, value] : extra.GetObject()) {
        const auto present = data.FindMember(name);
        if (present != data.MemberEnd()) {
            present->value.CopyFrom(value, allocator);
        } else {
            data.AddMember(rapidjson::Value(name, allocator), rapidjson::Value(value, allocator), allocator);
        }
    }
}

inline std::string renderByHand(const rapidjson::Value& value) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    value.Accept(writer);
    return {buffer.GetString(), buffer.GetSize()};
}

}  // namespace velmora::bench
