#include "corvane/graph/predicate.h"

#include <gtest/gtest.h>

#include <random>

#include "corvane/graph/sort_descriptor.h"

namespace corvane {
namespace {

// A record answering keys from a dictionary, standing in for any object a store evaluates.
Value sample() {
  return dict({{"title", "Grocery list"},
               {"name", "Élodie"},
               {"priority", 3},
               {"ratio", 0.5},
               {"done", false},
               {"when", Value::date(1000)},
               {"nothing", Value::null()},
               {"tags", Value::set({Value("home"), Value("Urgent")})},
               {"folder", dict({{"name", "Inbox"}, {"count", 7}})},
               {"items", Value::array({dict({{"size", 1}}), dict({{"size", 5}})})}});
}

bool eval(const std::string& text, const std::vector<Value>& args = {}) {
  Error error;
  auto p = Predicate::parse(text, args, &error);
  EXPECT_TRUE(p) << text << ": " << error.localizedDescription;
  return p && p->evaluate(sample());
}

TEST(Predicate, ComparesNumbersStringsDatesAndNil) {
  EXPECT_TRUE(eval("priority == 3"));
  EXPECT_TRUE(eval("priority = 3.0"));
  EXPECT_TRUE(eval("priority != 4 AND priority <> 5"));
  EXPECT_TRUE(eval("priority < 4 && priority <= 3 && priority > 2 && priority >= 3 && priority =< 3 && priority => 3"));
  EXPECT_FALSE(eval("priority > 3"));
  EXPECT_TRUE(eval("ratio < 1"));
  EXPECT_TRUE(eval("title == 'Grocery list'"));
  EXPECT_TRUE(eval("title < \"Z\""));
  EXPECT_TRUE(eval("done == NO AND done = FALSE AND NOT done == YES"));
  EXPECT_TRUE(eval("missing == nil AND nothing == NIL AND missing = NULL"));
  EXPECT_FALSE(eval("title == nil"));
  EXPECT_FALSE(eval("missing < 3"));  // nil does not order
  EXPECT_FALSE(eval("title < 3"));    // neither do different kinds
  EXPECT_TRUE(eval("when == CAST(1000, \"NSDate\")"));
  EXPECT_TRUE(eval("when < CAST('2001-01-01T00:20:00Z', \"NSDate\")"));
  EXPECT_TRUE(eval("when > CAST('2001-01-01T01:00:00+01:00', \"NSDate\")"));
  EXPECT_TRUE(eval("when > CAST('2000-12-31', \"NSDate\")"));
  EXPECT_TRUE(eval("-5 < priority AND 1e2 > priority AND +3 == priority"));
}

TEST(Predicate, StringOperatorsAndModifiers) {
  EXPECT_TRUE(eval("title BEGINSWITH 'Groc'"));
  EXPECT_FALSE(eval("title BEGINSWITH 'groc'"));
  EXPECT_TRUE(eval("title BEGINSWITH[c] 'groc'"));
  EXPECT_TRUE(eval("title ENDSWITH 'list'"));
  EXPECT_TRUE(eval("title CONTAINS 'ry l'"));
  EXPECT_TRUE(eval("title contains[c] 'RY L'"));
  EXPECT_TRUE(eval("name == 'Élodie'"));
  EXPECT_FALSE(eval("name == 'elodie'"));
  EXPECT_FALSE(eval("name ==[c] 'elodie'"));
  EXPECT_TRUE(eval("name ==[cd] 'ELODIE'"));
  EXPECT_TRUE(eval("name BEGINSWITH[d] 'Elo'"));
  EXPECT_TRUE(eval("title LIKE 'Gro*'"));
  EXPECT_TRUE(eval("title LIKE 'Gr?cery*list'"));
  EXPECT_FALSE(eval("title LIKE 'Gro'"));
  EXPECT_TRUE(eval("title LIKE[c] '*LIST'"));
  EXPECT_TRUE(eval("name LIKE[cd] 'e*E'"));
  EXPECT_FALSE(eval("priority BEGINSWITH '3'"));  // not a string
}

TEST(Predicate, CollectionsInAndBetween) {
  EXPECT_TRUE(eval("priority IN {1, 2, 3}"));
  EXPECT_FALSE(eval("priority IN {}"));
  EXPECT_TRUE(eval("title IN %@", {Value::array({Value("x"), Value("Grocery list")})}));
  EXPECT_TRUE(eval("'cery' IN title"));
  EXPECT_TRUE(eval("tags CONTAINS 'home'"));
  EXPECT_TRUE(eval("tags CONTAINS[c] 'urgent'"));
  EXPECT_FALSE(eval("tags CONTAINS 'urgent'"));
  EXPECT_TRUE(eval("ANY tags == 'home'"));
  EXPECT_FALSE(eval("ALL tags == 'home'"));
  EXPECT_TRUE(eval("NONE tags == 'work'"));
  EXPECT_TRUE(eval("tags == 'Urgent'"));  // a collection compared with one value means "any"
  EXPECT_TRUE(eval("priority BETWEEN {1, 3}"));
  EXPECT_FALSE(eval("priority BETWEEN {4, 9}"));
  EXPECT_TRUE(eval("tags.@count == 2"));
  EXPECT_TRUE(eval("folder.name == 'Inbox' AND folder.count > 5"));
  EXPECT_TRUE(eval("ANY items.size > 4"));
  EXPECT_FALSE(eval("ALL items.size > 4"));
  EXPECT_TRUE(eval("items.@count = 2"));
}

TEST(Predicate, LogicArgumentsAndKeywords) {
  EXPECT_TRUE(eval("(priority == 1 OR priority == 3) AND NOT (done == YES)"));
  EXPECT_TRUE(eval("priority == 1 OR priority == 3 AND title BEGINSWITH 'G'"));  // AND binds tighter
  EXPECT_FALSE(eval("(priority == 1 OR priority == 3) AND title BEGINSWITH 'X'"));
  EXPECT_TRUE(eval("! (priority == 1) || FALSEPREDICATE"));
  EXPECT_TRUE(eval("TRUEPREDICATE"));
  EXPECT_FALSE(eval("FALSEPREDICATE"));
  EXPECT_TRUE(eval("%K == %@ AND title BEGINSWITH[c] %@", {Value("priority"), Value(3), Value("gro")}));
  EXPECT_TRUE(eval("title == 'it\\'s' OR title == \"say \\\"hi\\\"\" OR priority == 3"));
  EXPECT_TRUE(eval("   priority   ==3   "));
  EXPECT_TRUE(eval("priority == 3 and done == no"));  // keywords ignore case
  Error error;
  auto p = Predicate::parse("folder.name == 'Inbox' AND priority > 1 AND tags CONTAINS 'x'", {}, &error);
  ASSERT_TRUE(p);
  EXPECT_EQ(p->keys(), (std::vector<std::string>{"folder", "priority", "tags"}));
  EXPECT_EQ(p->format(), "folder.name == 'Inbox' AND priority > 1 AND tags CONTAINS 'x'");
}

TEST(Predicate, PredicatesBuiltInCodeCombine) {
  Predicate high([](const Object& o) { return o.valueForKey("priority").longLongValue() > 2; }, "priority > 2");
  Predicate open = *Predicate::parse("done == NO");
  EXPECT_TRUE(Predicate::andPredicate({high, open}).evaluate(sample()));
  EXPECT_FALSE(Predicate::notPredicate(high).evaluate(sample()));
  EXPECT_TRUE(Predicate::orPredicate({Predicate::falsePredicate(), open}).evaluate(sample()));
  EXPECT_TRUE(Predicate().evaluate(sample()));
  EXPECT_EQ(Predicate::andPredicate({high, open}).format(), "(priority > 2) AND (done == NO)");
}

TEST(Predicate, RefusesMalformedTextNamingThePosition) {
  struct Case {
    const char* text;
    size_t position;
    const char* reason;
  };
  const Case cases[] = {
      {"", 0, "ends where a condition"},
      {"title ==", 8, "ends where a value"},
      {"title 'x'", 6, "comparison operator"},
      {"title == 'open", 9, "unterminated string"},
      {"(title == 'x'", 13, "expected ')'"},
      {"title == 'x' garbage", 13, "unexpected text"},
      {"title MATCHES 'x'", 6, "not supported"},
      {"title ==[z] 'x'", 9, "unknown comparison modifier"},
      {"title == %@", 9, "missing argument"},
      {"title == %d", 9, "unknown placeholder"},
      {"priority IN {1, 2", 17, "expected ',' or '}'"},
      {"priority == 12abc", 14, "after a number"},
      {"when == CAST('yesterday', \"NSDate\")", 8, "2024-01-31"},
      {"when == CAST(1, \"NSString\")", 8, "only makes dates"},
      {"ANY 3 == 3", 5, "need a key path"},
      {"priority BETWEEN {1}", 20, "two values"},
      {"title == 1e", 10, "exponent"},
  };
  for (const auto& c : cases) {
    Error error;
    EXPECT_FALSE(Predicate::parse(c.text, {}, &error)) << c.text;
    EXPECT_NE(error.localizedDescription.find("position " + std::to_string(c.position) + ":"), std::string::npos)
        << c.text << " -> " << error.localizedDescription;
    EXPECT_NE(error.localizedDescription.find(c.reason), std::string::npos)
        << c.text << " -> " << error.localizedDescription;
    EXPECT_EQ(error.userInfo["position"].longLongValue(), static_cast<long long>(c.position)) << c.text;
  }
  Error error;
  EXPECT_FALSE(Predicate::parse("a == %@", {Value(1), Value(2)}, &error));
  EXPECT_NE(error.localizedDescription.find("more arguments"), std::string::npos);
}

TEST(Predicate, SurvivesArbitraryAndHostileInput) {
  // Deep nesting is refused rather than overflowing the stack.
  std::string deep(100000, '(');
  Error error;
  EXPECT_FALSE(Predicate::parse(deep + "a == 1", {}, &error));
  EXPECT_NE(error.localizedDescription.find("nested too deeply"), std::string::npos);
  EXPECT_FALSE(Predicate::parse(std::string(100000, '!') + "a == 1", {}, &error));
  EXPECT_FALSE(Predicate::parse(std::string(2 << 20, ' '), {}, &error));

  // Random texts made of the grammar's own pieces: every one parses or is refused, and the
  // ones that parse can be evaluated.
  const char* pieces[] = {
      "title", "priority", "(",          ")",    "==",     "<",       "AND",           "OR",   "NOT",
      "'x'",   "3",        "{",          "}",    ",",      "IN",      "BEGINSWITH",    "[cd]", "%@",
      "ANY",   "CAST(",    "\"NSDate\"", ".",    "@count", "LIKE",    "'*'",           "nil",  "\\",
      "'",     "\"",       "\xff",       "\xc3", "é",      "BETWEEN", "TRUEPREDICATE", " "};
  std::mt19937 random(7);
  for (int i = 0; i < 20000; ++i) {
    std::string text;
    int n = static_cast<int>(random() % 12);
    for (int k = 0; k < n; ++k) text += std::string(pieces[random() % std::size(pieces)]) + (random() % 2 ? " " : "");
    auto p = Predicate::parse(text, {Value("arg")}, nullptr);
    if (p) p->evaluate(sample());
  }
  for (int i = 0; i < 20000; ++i) {
    std::string text(random() % 40, ' ');
    for (auto& c : text) c = static_cast<char>(random() % 256);
    auto p = Predicate::parse(text, {}, nullptr);
    if (p) p->evaluate(sample());
  }
}

TEST(SortDescriptor, ComparesByKindWithNilFirst) {
  EXPECT_LT(SortDescriptor::compareByKind(Value(), Value(1)), 0);
  EXPECT_EQ(SortDescriptor::compareByKind(Value::null(), Value()), 0);
  EXPECT_LT(SortDescriptor::compareByKind(Value(2), Value(10)), 0);
  EXPECT_LT(SortDescriptor::compareByKind(Value(1.5), Value(2)), 0);
  EXPECT_LT(SortDescriptor::compareByKind(Value(false), Value(true)), 0);
  EXPECT_LT(SortDescriptor::compareByKind(Value("B"), Value("a")), 0);
  EXPECT_GT(SortDescriptor::compareByKind(Value("B"), Value("a"), true), 0);
  EXPECT_LT(SortDescriptor::compareByKind(Value::date(5), Value::date(6)), 0);
  EXPECT_LT(SortDescriptor::compareByKind(Value::data(asBytes("ab")), Value::data(asBytes("abc"))), 0);

  std::vector<Value> rows = {dict({{"n", 2}, {"s", "b"}}), dict({{"n", 1}, {"s", "z"}}), dict({{"s", "y"}}),
                             dict({{"n", 2}, {"s", "a"}})};
  std::vector<std::unique_ptr<DictionaryObject>> objects;
  std::vector<const Object*> pointers;
  for (const auto& r : rows) {
    objects.push_back(std::make_unique<DictionaryObject>(r));
    pointers.push_back(objects.back().get());
  }
  EXPECT_EQ(sortOrder(pointers, {SortDescriptor("n"), SortDescriptor("s")}), (std::vector<size_t>{2, 1, 3, 0}));
  EXPECT_EQ(sortOrder(pointers, {SortDescriptor("n", false)}), (std::vector<size_t>{0, 3, 1, 2}));  // stable
  SortDescriptor byLength = SortDescriptor::withComparator("s", [](const Value& a, const Value& b) {
    return static_cast<int>(a.str().size()) - static_cast<int>(b.str().size());
  });
  EXPECT_EQ(sortOrder(pointers, {byLength}), (std::vector<size_t>{0, 1, 2, 3}));
}

}  // namespace
}  // namespace corvane
