// The documents of the etcd store: groups with their properties and nested
// groups, and a list of names, in a binary form that keeps values (any byte
// but NUL) exactly.
#include "hgx_etcd_doc.h"

#include <cstdint>

#include "hgx_internal.h"

namespace hgx_detail::etcd {

namespace {

// ---- documents ---------------------------------------------------------------------

// The encoding: "hgx1", then groups and names; a group is name, type,
// properties (name, type, blob) and nested groups; every count and length
// an unsigned LEB128 number, every text its length and its bytes.
class DocWriter {
  public:
    std::string take(const Doc& d) {
        out_ = "hgx1";
        groups(d.groups);
        number(d.names.size());
        for (const std::string& n : d.names) text(n);
        return std::move(out_);
    }

  private:
    void number(uint64_t v) {
        do {
            uint8_t b = v & 0x7f;
            v >>= 7;
            out_ += static_cast<char>(v ? b | 0x80 : b);
        } while (v);
    }
    void text(std::string_view s) {
        number(s.size());
        out_ += s;
    }
    void groups(const std::vector<DocGroup>& gs) {
        number(gs.size());
        for (const DocGroup& g : gs) {
            text(g.name);
            text(g.type);
            number(g.props.size());
            for (const DocProp& p : g.props) {
                text(p.name);
                number(static_cast<uint64_t>(p.type));
                text(p.blob);
            }
            groups(g.groups);
        }
    }
    std::string out_;
};

// Reads a document, refusing anything malformed (false), never reading past
// its end, and nesting no deeper than a wern could name.
class DocReader {
  public:
    bool read(std::string_view in, Doc* d) {
        in_ = in;
        if (in_.substr(0, 4) != "hgx1") return false;
        in_.remove_prefix(4);
        uint64_t n = 0;
        if (!groups(&d->groups, 0) || !number(&n)) return false;
        for (uint64_t i = 0; i < n; ++i) {
            d->names.emplace_back();
            if (!text(&d->names.back())) return false;
        }
        return in_.empty();
    }

  private:
    bool number(uint64_t* v) {
        *v = 0;
        for (int shift = 0; shift < 64; shift += 7) {
            if (in_.empty()) return false;
            uint8_t b = static_cast<uint8_t>(in_[0]);
            in_.remove_prefix(1);
            *v |= static_cast<uint64_t>(b & 0x7f) << shift;
            if (!(b & 0x80)) return true;
        }
        return false;
    }
    bool text(std::string* s) {
        uint64_t n;
        if (!number(&n) || n > in_.size()) return false;
        s->assign(in_.substr(0, n));
        in_.remove_prefix(n);
        return true;
    }
    bool groups(std::vector<DocGroup>* gs, int depth) {
        uint64_t n;
        if (depth > static_cast<int>(WERN_LIMIT) || !number(&n) || n > in_.size()) return false;
        for (uint64_t i = 0; i < n; ++i) {
            gs->emplace_back();
            DocGroup& g = gs->back();
            uint64_t np;
            if (!text(&g.name) || !text(&g.type) || !number(&np) || np > in_.size()) return false;
            for (uint64_t k = 0; k < np; ++k) {
                g.props.emplace_back();
                uint64_t type;
                if (!text(&g.props.back().name) || !number(&type) || !text(&g.props.back().blob))
                    return false;
                g.props.back().type = static_cast<int>(type);
            }
            if (!groups(&g.groups, depth + 1)) return false;
        }
        return true;
    }
    std::string_view in_;
};

}  // namespace

std::string encode_doc(const Doc& doc) { return DocWriter().take(doc); }
bool decode_doc(std::string_view value, Doc* doc) { return DocReader().read(value, doc); }

}  // namespace hgx_detail::etcd
