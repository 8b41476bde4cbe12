// The documents of the etcd store: a group with its properties and nested
// groups, or the names below an owner, as one value of the cluster. Apart
// from the rest of the store, so that what reads values from the cluster
// can be tested (and fuzzed) alone.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace hgx_detail::etcd {

// A group as a document holds it.
struct DocProp {
    std::string name;
    int type = 0;
    std::string blob;
};
struct DocGroup {
    std::string name, type;
    std::vector<DocProp> props;
    std::vector<DocGroup> groups;
};
// A document: the groups of one owner and the names of what lies below it
// (a service's instances, an instance's snapshots; none for a snapshot).
struct Doc {
    std::vector<DocGroup> groups;
    std::vector<std::string> names;
};

// The value that holds doc; decode_doc gives doc back from it, exactly.
std::string encode_doc(const Doc& doc);
// true with *doc (empty before the call) holding the document; false for a
// value that is not a well-formed document, *doc then unspecified. Never
// reads past the value's end, nor nests deeper than a wern could name.
bool decode_doc(std::string_view value, Doc* doc);

}  // namespace hgx_detail::etcd
