// A format of an output column, read once and then filled in for each event.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "ingest/event/conversion/captureset.h"

namespace velmora {

// "$1" and "$+{name}" are references, "$$" is a dollar; all else that Perl's formats know works too, at a price.
class FormatTemplate {
public:
    // A reference as the check for defined groups sees it: either form, but not behind an odd dollar.
    struct Reference {
        size_t number = 0;  // 0 for a reference by name
        std::string name;
    };

    explicit FormatTemplate(std::string text);

    [[nodiscard]] const std::string& text() const noexcept { return text_; }
    [[nodiscard]] const std::vector<Reference>& references() const noexcept { return references_; }

    // The format is made of plain text, "$$" and references alone.
    [[nodiscard]] bool isPlain() const noexcept { return plain_; }

    // The largest number among the references.
    [[nodiscard]] size_t highestNumber() const noexcept { return highestNumber_; }

    // Only for a plain format: calls text(const std::string&), numbered(size_t) and named(const std::string&) of the
    // target, piece by piece.
    template <typename Target>
    void expand(Target&& target) const {
        for (const Piece& piece : pieces_) {
            if (piece.kind == Piece::Kind::text) target.text(piece.text);
            if (piece.kind == Piece::Kind::number) target.numbered(piece.number);
            if (piece.kind == Piece::Kind::name) target.named(piece.text);
        }
    }

    static constexpr size_t kNoSuchNumber = static_cast<size_t>(-1);  // also that of digits out of range

private:
    struct Piece {
        enum class Kind { text, number, name } kind = Kind::text;
        std::string text;
        size_t number = 0;
    };

    void findReferences();
    [[nodiscard]] bool split();
    [[nodiscard]] bool takeReference(size_t& position);
    void addText(std::string_view text);

    std::string text_;
    std::vector<Reference> references_;
    std::vector<Piece> pieces_;
    size_t highestNumber_ = 0;
    bool plain_ = false;
};

}  // namespace velmora
