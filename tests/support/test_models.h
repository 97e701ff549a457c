// The model most store and command tests share, as a JSON model file's text: people with every
// attribute type, friends (to-many), children (ordered to-many), an employer (to-one);
// companies; an abstract Thing with a concrete Gadget.
#pragma once

namespace corvane::testing {

inline const char* kPeopleModelJSON = R"({"entities": [
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
    {"name": "photo", "type": "binary"}],
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

}  // namespace corvane::testing
