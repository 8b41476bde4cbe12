// The manifest: hgxrepo's JSON description of services, read into plain
// records with every name, type and value checked, and written back out.
// Private to hgxrepo (and its fuzz target); std::bad_alloc from here stops
// at hgxrepo.h's functions.
#pragma once

#include <string>
#include <vector>

#include "hgx.h"

namespace manifest {

// The records below are plain values that own their contents; parse fills
// them with names, types and values already checked against the library's
// rules, so a writer may store them without checking again.

// One property: its name within its group, its type, and its values.
struct Property {
    std::string name;
    hgx_type_t type = HGX_TYPE_ASTRING;
    std::string blob;  // values as stored: each followed by a NUL byte
};

// One property group with its properties and nested groups, in the order
// the manifest gave them.
struct Group {
    std::string name;
    std::string type;
    std::vector<Property> properties;
    std::vector<Group> groups;
};

// One instance of a service and its own groups.
struct Instance {
    std::string name;
    std::vector<Group> groups;
};

// One service: its groups and its instances.
struct Service {
    std::string name;
    std::vector<Group> groups;
    std::vector<Instance> instances;
};

// One manifest: the services it describes, in its order; a service named
// twice appears twice, and the later one wins when stored.
struct Document {
    std::vector<Service> services;
};

// Reads one manifest text (JSON) into *out. Returns 0 on success, with
// *out holding the whole document and *error untouched. On failure returns
// -1 and sets *error to one line, "NAME:LINE:COLUMN: what", NAME being how
// the text is named to the user (a file name, "<stdin>"); *out is then in
// an unspecified state and is not to be used. out and error must not be
// null. Throws only std::bad_alloc.
int parse(const std::string& text, const std::string& name, Document* out, std::string* error);

// Quotes a text for a one-line message: double quotes around it, double
// quotes, control bytes and backslashes escaped, a text longer than max
// bytes cut after max bytes with "..." (std::string::npos: never cut).
std::string quote(const std::string& s, size_t max = 60);

}  // namespace manifest
