// The models that the cache, store and command tests share, as JSON model files' text: people
// with friends (to-many), children (ordered to-many) and an employer (to-one); companies; an
// abstract Thing with a concrete Gadget. The suites differ only in Person's attributes.
#pragma once

#include <string>

namespace corvane::testing {

// Person's relationships and the other entities, after Person's attribute list.
inline const std::string kPeopleModelRest = R"(],
   "relationships": [
    {"name": "friends", "destination": "Person", "inverse": "friendOf", "toMany": true},
    {"name": "friendOf", "destination": "Person", "inverse": "friends", "toMany": true},
    {"name": "children", "destination": "Person", "inverse": "parent", "toMany": true, "ordered": true},
    {"name": "parent", "destination": "Person", "inverse": "children"},
    {"name": "employer", "destination": "Company", "inverse": "staff"}]},
  {"name": "Company", "attributes": [{"name": "name", "type": "string"}],
   "relationships": [{"name": "staff", "destination": "Person", "inverse": "employer", "toMany": true}]},
  {"name": "Thing", "abstract": true, "attributes": [{"name": "label", "type": "string"}]},
  {"name": "Gadget", "parent": "Thing"}
]})";

// Person with an attribute of every type: the store and command tests.
inline const std::string kPeopleModelJSON = R"({"entities": [
  {"name": "Person", "attributes": [
    {"name": "name", "type": "string"},
    {"name": "age", "type": "integer32"},
    {"name": "rank", "type": "integer16"},
    {"name": "serial", "type": "integer64"},
    {"name": "balance", "type": "decimal"},
    {"name": "height", "type": "double"},
    {"name": "weight", "type": "float"},
    {"name": "active", "type": "boolean"},
    {"name": "born", "type": "date"},
    {"name": "photo", "type": "binary"})" + kPeopleModelRest;

// Person with a defaulted nickname and a URI: the cache tests.
inline const std::string kCacheModelJSON = R"({"entities": [
  {"name": "Person", "attributes": [
    {"name": "name", "type": "string"},
    {"name": "nickname", "type": "string", "default": "Anon"},
    {"name": "age", "type": "integer32"},
    {"name": "balance", "type": "decimal"},
    {"name": "height", "type": "double"},
    {"name": "active", "type": "boolean"},
    {"name": "born", "type": "date"},
    {"name": "photo", "type": "binary"},
    {"name": "homepage", "type": "uri"})" + kPeopleModelRest;

}  // namespace corvane::testing
