// Reading manifests with the place of every fault.
//
// The JSON is read with nlohmann's SAX parser into a small tree that keeps the
// byte offset where each key and value begins; a second walk checks the tree
// against the manifest's rules and builds the records. The parser does not
// report positions to a SAX handler, so the input is fed through an iterator
// that records the offset of the last byte the parser read: when a callback
// fires, that is the end of the token just scanned (or, for a number, the
// byte after it), from which the token's start is found.
#include "manifest.h"

#include <cstdio>
#include <iterator>
#include <new>
#include <nlohmann/json.hpp>
#include <string_view>
#include <unordered_set>

#include "hgx_write.h"

namespace manifest {

namespace {

struct Node {
    enum Kind { OBJECT, ARRAY, STRING, BOOLEAN, UNSIGNED, INTEGER, FLOAT, NUL } kind = NUL;
    size_t pos = 0;
    std::string str;  // a string; the source text of a float
    bool b = false;
    uint64_t u = 0;
    int64_t i = 0;
    std::vector<std::string> keys;  // objects: keys[k] names items[k]
    std::vector<size_t> key_pos;
    std::vector<Node> items;

    const Node* get(std::string_view key) const {
        for (size_t k = 0; k < keys.size(); ++k)
            if (keys[k] == key) return &items[k];
        return nullptr;
    }
};

// Input iterator over the text that records the offset of each byte read.
struct TrackingIter {
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char*;
    using reference = const char&;

    const char* p = nullptr;
    const char* base = nullptr;
    size_t* last = nullptr;

    reference operator*() const {
        *last = static_cast<size_t>(p - base);
        return *p;
    }
    TrackingIter& operator++() {
        ++p;
        return *this;
    }
    TrackingIter operator++(int) {
        TrackingIter t = *this;
        ++p;
        return t;
    }
    bool operator==(const TrackingIter& o) const { return p == o.p; }
    bool operator!=(const TrackingIter& o) const { return p != o.p; }
};

class Builder {
  public:
    static constexpr size_t MAX_DEPTH = 2048;

    Builder(const std::string& text, const size_t* last) : text_(text), last_(last) {}

    bool null() { return scalar(Node::NUL, literal_start(4)); }
    bool boolean(bool v) {
        Node n;
        n.kind = Node::BOOLEAN;
        n.b = v;
        n.pos = literal_start(v ? 4 : 5);
        return add(std::move(n));
    }
    bool number_integer(int64_t v) {
        Node n;
        n.kind = Node::INTEGER;
        n.i = v;
        n.pos = number_start();
        return add(std::move(n));
    }
    bool number_unsigned(uint64_t v) {
        Node n;
        n.kind = Node::UNSIGNED;
        n.u = v;
        n.pos = number_start();
        return add(std::move(n));
    }
    bool number_float(double, const std::string& raw) {
        Node n;
        n.kind = Node::FLOAT;
        n.str = raw;
        n.pos = number_start();
        return add(std::move(n));
    }
    bool string(std::string& v) {
        Node n;
        n.kind = Node::STRING;
        n.str = std::move(v);
        n.pos = string_start();
        return add(std::move(n));
    }
    bool binary(nlohmann::json::binary_t&) { return false; }
    bool start_object(size_t) { return open(Node::OBJECT); }
    bool start_array(size_t) { return open(Node::ARRAY); }
    bool end_object() { return close(); }
    bool end_array() { return close(); }
    bool key(std::string& k) {
        Frame& f = stack_.back();
        size_t pos = string_start();
        if (!f.seen.insert(k).second) {
            error_pos = pos;
            error = "duplicate key " + quote(k);
            return false;
        }
        f.node.keys.push_back(std::move(k));
        f.node.key_pos.push_back(pos);
        return true;
    }
    bool parse_error(size_t position, const std::string&, const nlohmann::json::exception& ex) {
        error_pos = position ? position - 1 : 0;
        // The parser's text begins with its own id and position, which are
        // replaced by ours; keep what follows "column N: ".
        std::string what = ex.what();
        size_t col = what.find("column ");
        size_t colon = col == std::string::npos ? col : what.find(": ", col);
        error = colon == std::string::npos ? what : what.substr(colon + 2);
        return false;
    }

    Node root;
    bool has_root = false;
    std::string error;
    size_t error_pos = 0;

  private:
    struct Frame {
        Node node;
        std::unordered_set<std::string> seen;
    };

    size_t literal_start(size_t len) const { return *last_ + 1 - len; }

    // A number ends in a digit; the parser may have read one byte beyond it.
    size_t number_start() const {
        size_t e = *last_;
        if (e >= text_.size() || text_[e] < '0' || text_[e] > '9') --e;
        while (e > 0 &&
               std::string_view("0123456789.eE+-").find(text_[e - 1]) != std::string_view::npos)
            --e;
        return e;
    }

    // The last byte read is the closing quote; the opening one is the nearest
    // quote before it that follows an even number of backslashes.
    size_t string_start() const {
        size_t q = *last_;
        while (q > 0) {
            --q;
            if (text_[q] != '"') continue;
            size_t bs = 0;
            while (q > bs && text_[q - 1 - bs] == '\\') ++bs;
            if (bs % 2 == 0) return q;
        }
        return 0;
    }

    bool scalar(Node::Kind kind, size_t pos) {
        Node n;
        n.kind = kind;
        n.pos = pos;
        return add(std::move(n));
    }

    bool add(Node&& n) {
        if (stack_.empty()) {
            root = std::move(n);
            has_root = true;
        } else {
            stack_.back().node.items.push_back(std::move(n));
        }
        return true;
    }

    bool open(Node::Kind kind) {
        // The tree is released by recursion, one frame per level; a manifest
        // needs a few levels per group level, and wern lengths bound those.
        if (stack_.size() >= MAX_DEPTH) {
            error_pos = *last_;
            error = "nesting deeper than " + std::to_string(MAX_DEPTH) + " levels";
            return false;
        }
        stack_.emplace_back();
        stack_.back().node.kind = kind;
        stack_.back().node.pos = *last_;
        return true;
    }

    bool close() {
        Node n = std::move(stack_.back().node);
        stack_.pop_back();
        return add(std::move(n));
    }

    const std::string& text_;
    const size_t* last_;
    std::vector<Frame> stack_;
};

const size_t WERN_LIMIT = static_cast<size_t>(hgx_limit(HGX_LIMIT_WERN_LENGTH));
const size_t PG_TYPE_LIMIT = static_cast<size_t>(hgx_limit(HGX_LIMIT_PG_TYPE_LENGTH));

// Thrown inside this file only, to leave the checking walk at the first fault.
struct Fault {
    size_t pos;
    std::string what;
};

[[noreturn]] void fault(size_t pos, std::string what) { throw Fault{pos, std::move(what)}; }

const char* kind_name(Node::Kind k) {
    switch (k) {
        case Node::OBJECT:
            return "an object";
        case Node::ARRAY:
            return "an array";
        case Node::STRING:
            return "a string";
        case Node::BOOLEAN:
            return "a boolean";
        case Node::UNSIGNED:
        case Node::INTEGER:
            return "an integer";
        case Node::FLOAT:
            return "a floating-point number";
        case Node::NUL:
            return "null";
    }
    return "?";
}

void want_object(const Node& n, const std::string& what) {
    if (n.kind != Node::OBJECT) fault(n.pos, what + " must be an object, not " + kind_name(n.kind));
}

// Refuses keys of an object other than the allowed ones.
void only_keys(const Node& n, std::initializer_list<std::string_view> allowed,
               const std::string& where) {
    for (size_t k = 0; k < n.keys.size(); ++k) {
        bool ok = false;
        for (std::string_view a : allowed) ok = ok || n.keys[k] == a;
        if (!ok) {
            std::string list;
            for (std::string_view a : allowed) list += (list.empty() ? "" : ", ") + std::string(a);
            fault(n.key_pos[k],
                  "unknown key " + quote(n.keys[k]) + " in " + where + " (expected " + list + ")");
        }
    }
}

void check_value(const std::string& wern, hgx_type_t type, const std::string& v, size_t pos) {
    const char* why = nullptr;
    if (hgx_value_check(type, v, &why) < 0)
        fault(pos, wern + ": value " + quote(v) + " " + why + " (type " + hgx_type_to_string(type) +
                       ")");
}

// The kind of a scalar value, INTEGER read as UNSIGNED; refuses what is no
// scalar value.
Node::Kind scalar_kind(const Node& v, const std::string& wern) {
    switch (v.kind) {
        case Node::FLOAT:
            // The parser gives integers beyond 64 bits as floats.
            if (v.str.find_first_of(".eE") == std::string::npos)
                fault(v.pos, wern + ": integer " + v.str + " is out of range");
            fault(v.pos, wern + ": floating-point number " + v.str + " is not a valid value");
        case Node::NUL:
            fault(v.pos, wern + ": null is not a valid value");
        case Node::OBJECT:
        case Node::ARRAY:
            fault(v.pos, wern + ": " + kind_name(v.kind) + " is not a valid value here");
        default:
            return v.kind == Node::INTEGER ? Node::UNSIGNED : v.kind;
    }
}

// A scalar value as stored.
std::string scalar_text(const Node& v) {
    switch (v.kind) {
        case Node::STRING:
            return v.str;
        case Node::BOOLEAN:
            return v.b ? "true" : "false";
        case Node::UNSIGNED:
            return std::to_string(v.u);
        default:
            return std::to_string(v.i);
    }
}

// The type a scalar value gives a property on its own.
hgx_type_t scalar_type(const Node& v) {
    if (v.kind == Node::STRING) return HGX_TYPE_ASTRING;
    if (v.kind == Node::BOOLEAN) return HGX_TYPE_BOOLEAN;
    return v.kind == Node::INTEGER && v.i < 0 ? HGX_TYPE_INTEGER : HGX_TYPE_COUNT;
}

// A property written as {"type": ..., "values": ...}.
void read_typed_property(const Node& n, const std::string& wern, Property* p,
                         std::vector<std::string>* values) {
    only_keys(n, {"type", "values"}, "property " + wern);
    const Node* t = n.get("type");
    if (!t) fault(n.pos, wern + ": property object has no \"type\"");
    if (t->kind != Node::STRING)
        fault(t->pos, wern + ": \"type\" must be a string, not " + kind_name(t->kind));
    p->type = hgx_string_to_type(t->str.c_str());
    if (p->type == HGX_TYPE_INVALID) fault(t->pos, wern + ": unknown type " + quote(t->str));
    const Node* vs = n.get("values");
    if (!vs) return;
    std::vector<const Node*> items;
    if (vs->kind == Node::STRING) {
        items.push_back(vs);
    } else if (vs->kind == Node::ARRAY) {
        for (const Node& v : vs->items) items.push_back(&v);
    } else {
        fault(vs->pos, wern + ": \"values\" must be an array of strings or a string, not " +
                           kind_name(vs->kind));
    }
    for (const Node* v : items) {
        if (v->kind != Node::STRING)
            fault(v->pos, wern + ": values must be strings, not " + kind_name(v->kind));
        check_value(wern, p->type, v->str, v->pos);
        values->push_back(v->str);
    }
}

// A property written as an array of scalars: one kind of scalar
// throughout; numbers are counts unless one of them is negative.
void read_array_property(const Node& n, const std::string& wern, Property* p,
                         std::vector<std::string>* values) {
    p->type = HGX_TYPE_ASTRING;
    if (n.items.empty()) return;
    Node::Kind kind = scalar_kind(n.items[0], wern);
    p->type = scalar_type(n.items[0]);
    for (const Node& v : n.items) {
        Node::Kind k = scalar_kind(v, wern);
        if (k != kind)
            fault(v.pos, wern + ": array mixes " + kind_name(n.items[0].kind) + " and " +
                             kind_name(v.kind));
        if (scalar_type(v) == HGX_TYPE_INTEGER) p->type = HGX_TYPE_INTEGER;
    }
    for (const Node& v : n.items) {
        check_value(wern, p->type, scalar_text(v), v.pos);
        values->push_back(scalar_text(v));
    }
}

Property read_property(const Node& n, const std::string& name, const std::string& wern) {
    Property p;
    p.name = name;
    std::vector<std::string> values;
    if (n.kind == Node::OBJECT) {
        read_typed_property(n, wern, &p, &values);
    } else if (n.kind == Node::ARRAY) {
        read_array_property(n, wern, &p, &values);
    } else {
        scalar_kind(n, wern);
        p.type = scalar_type(n);
        check_value(wern, p.type, scalar_text(n), n.pos);
        values.push_back(scalar_text(n));
    }
    if (hgx_values_blob(values, &p.blob) < 0) throw std::bad_alloc();
    return p;
}

void check_wern_length(const std::string& wern, size_t pos) {
    if (wern.size() > WERN_LIMIT)
        fault(pos, "wern is longer than " + std::to_string(WERN_LIMIT) + " bytes: " + quote(wern));
}

void check_name(const std::string& kind, const std::string& name, size_t pos) {
    if (!hgx_valid_name(name))
        fault(pos, "bad " + kind + " name " + quote(name) +
                       " (a letter or digit, then letters, digits and _.,+-)");
}

std::vector<Group> read_groups(const Node& n, const std::string& owner_wern,
                               const std::string& parent_path) {
    want_object(n, "\"groups\" of " + owner_wern);
    std::vector<Group> out;
    for (size_t k = 0; k < n.keys.size(); ++k) {
        const std::string& name = n.keys[k];
        check_name("group", name, n.key_pos[k]);
        std::string path = parent_path.empty() ? name : parent_path + "/" + name;
        std::string wern = owner_wern + HGX_WERN_PG_SEPARATOR + path;
        check_wern_length(wern, n.key_pos[k]);
        const Node& g = n.items[k];
        want_object(g, "group " + wern);
        only_keys(g, {"type", "properties", "groups"}, "group " + wern);
        Group group;
        group.name = name;
        group.type = "application";
        if (const Node* t = g.get("type")) {
            if (t->kind != Node::STRING)
                fault(t->pos, wern + ": group type must be a string, not " + kind_name(t->kind));
            if (t->str.empty() || t->str.size() > PG_TYPE_LIMIT ||
                t->str.find('\0') != std::string::npos)
                fault(t->pos, wern + ": group type must be 1 to " + std::to_string(PG_TYPE_LIMIT) +
                                  " bytes without NUL: " + quote(t->str));
            group.type = t->str;
        }
        if (const Node* ps = g.get("properties")) {
            want_object(*ps, "\"properties\" of " + wern);
            for (size_t j = 0; j < ps->keys.size(); ++j) {
                check_name("property", ps->keys[j], ps->key_pos[j]);
                std::string pw = wern + "/" + ps->keys[j];
                check_wern_length(pw, ps->key_pos[j]);
                group.properties.push_back(read_property(ps->items[j], ps->keys[j], pw));
            }
        }
        if (const Node* gs = g.get("groups")) group.groups = read_groups(*gs, owner_wern, path);
        out.push_back(std::move(group));
    }
    return out;
}

void read_document(const Node& root, Document* out) {
    want_object(root, "the manifest");
    only_keys(root, {"services"}, "the manifest");
    const Node* services = root.get("services");
    if (!services) return;
    want_object(*services, "\"services\"");
    for (size_t k = 0; k < services->keys.size(); ++k) {
        const std::string& name = services->keys[k];
        if (!hgx_valid_service_name(name))
            fault(services->key_pos[k],
                  "bad service name " + quote(name) +
                      " (segments joined by /, each a letter or digit, then letters, digits and "
                      "_.,+-)");
        std::string wern = "wrn:/" + name;
        check_wern_length(wern, services->key_pos[k]);
        const Node& s = services->items[k];
        want_object(s, "service " + wern);
        only_keys(s, {"groups", "instances"}, "service " + wern);
        Service service;
        service.name = name;
        if (const Node* g = s.get("groups")) service.groups = read_groups(*g, wern, "");
        if (const Node* is = s.get("instances")) {
            want_object(*is, "\"instances\" of " + wern);
            for (size_t j = 0; j < is->keys.size(); ++j) {
                check_name("instance", is->keys[j], is->key_pos[j]);
                std::string iw = wern + ":" + is->keys[j];
                check_wern_length(iw, is->key_pos[j]);
                const Node& in = is->items[j];
                want_object(in, "instance " + iw);
                only_keys(in, {"groups"}, "instance " + iw);
                Instance instance;
                instance.name = is->keys[j];
                if (const Node* g = in.get("groups")) instance.groups = read_groups(*g, iw, "");
                service.instances.push_back(std::move(instance));
            }
        }
        out->services.push_back(std::move(service));
    }
}

std::string place(const std::string& text, const std::string& name, size_t pos) {
    size_t line = 1, col = 1;
    for (size_t i = 0; i < pos && i < text.size(); ++i) {
        if (text[i] == '\n') {
            ++line;
            col = 1;
        } else {
            ++col;
        }
    }
    return name + ":" + std::to_string(line) + ":" + std::to_string(col);
}

}  // namespace

std::string quote(const std::string& s, size_t max) {
    std::string out = "\"";
    size_t n = 0;
    for (char c : s) {
        if (n++ == max) {
            out += "...";
            break;
        }
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\t':
                out += "\\t";
                break;
            case '\r':
                out += "\\r";
                break;
            default:
                if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
                    char buf[8];
                    std::snprintf(buf, sizeof buf, "\\x%02x", static_cast<unsigned char>(c));
                    out += buf;
                } else {
                    out += c;
                }
        }
    }
    return out + "\"";
}

int parse(const std::string& text, const std::string& name, Document* out, std::string* error) {
    size_t last = 0;
    Builder b(text, &last);
    TrackingIter first{text.data(), text.data(), &last};
    TrackingIter end{text.data() + text.size(), text.data(), &last};
    bool ok;
    try {
        ok = nlohmann::json::sax_parse(first, end, &b);
    } catch (const nlohmann::json::exception& ex) {
        *error = name + ": " + ex.what();
        return -1;
    }
    if (!ok || !b.has_root) {
        *error = place(text, name, b.error_pos) + ": " +
                 (b.error.empty() ? std::string("not a JSON document") : b.error);
        return -1;
    }
    try {
        *out = Document{};
        read_document(b.root, out);
    } catch (const Fault& f) {
        *error = place(text, name, f.pos) + ": " + f.what;
        return -1;
    }
    return 0;
}

}  // namespace manifest
