#include "corvane/cache/value_transformers.h"

#include <fmt/format.h>

#include "corvane/foundation/decimal.h"
#include "corvane/foundation/env.h"
#include "corvane/foundation/error.h"
#include "corvane/graph/object_model.h"

namespace corvane {

ValueTransformer::~ValueTransformer() = default;

Value ValueTransformer::reverseTransformedValue(const Value& /*value*/) const { return Value(); }

// ---- Registry --------------------------------------------------------------------------------

namespace {
template <class T>
ValueTransformerRegistry::Factory factoryOf() {
  return [] { return std::make_shared<T>(); };
}
}  // namespace

ValueTransformerRegistry::ValueTransformerRegistry() {
  factories_.emplace("CorvaneNSStringValueTransformer", factoryOf<CorvaneNSStringValueTransformer>());
  factories_.emplace("CorvaneNSNumberValueTransformer", factoryOf<CorvaneNSNumberValueTransformer>());
  factories_.emplace("CorvaneNSDecimalNumberValueTransformer", factoryOf<CorvaneNSDecimalNumberValueTransformer>());
  factories_.emplace("CorvaneNSNumber800ValueTransformer", factoryOf<CorvaneNSNumber800ValueTransformer>());
  factories_.emplace("CorvaneNSDateValueTransformer", factoryOf<CorvaneNSDateValueTransformer>());
  factories_.emplace("CorvaneNSDateValueTransformer2", factoryOf<CorvaneNSDateValueTransformer2>());
  factories_.emplace("CorvaneNSDataValueTransformer", factoryOf<CorvaneNSDataValueTransformer>());
  factories_.emplace("CorvaneChangeCountValueTransformer", factoryOf<CorvaneChangeCountValueTransformer>());
}

ValueTransformerRegistry& ValueTransformerRegistry::shared() {
  static auto* registry = new ValueTransformerRegistry();  // never destroyed: used until exit
  return *registry;
}

void ValueTransformerRegistry::registerFactory(std::string name, Factory factory) {
  MutexLock lock(&mutex_);
  instances_.erase(name);
  factories_[std::move(name)] = std::move(factory);
}

void ValueTransformerRegistry::setValueTransformer(std::shared_ptr<ValueTransformer> transformer, std::string name) {
  MutexLock lock(&mutex_);
  if (transformer) {
    instances_[std::move(name)] = std::move(transformer);
  } else {
    instances_.erase(name);
  }
}

std::shared_ptr<ValueTransformer> ValueTransformerRegistry::valueTransformerForName(std::string_view name) {
  MutexLock lock(&mutex_);
  std::string key(name);
  if (auto it = instances_.find(key); it != instances_.end()) return it->second;
  auto factory = factories_.find(key);
  if (factory == factories_.end() || !factory->second) return nullptr;
  auto made = factory->second();
  if (made) instances_.emplace(std::move(key), made);
  return made;
}

std::shared_ptr<ValueTransformer> CorvaneValueTransformerForAttribute(const AttributeDescription& attribute,
                                                                      const Value& version) {
  const std::string& valueClass = attribute.valueClassName();
  const long type = static_cast<long>(attribute.attributeType());
  const std::string versionText = version.isNil() ? std::string() : version.description();
  const std::string names[] = {
      fmt::format("Corvane{}{}ValueTransformer{}", valueClass, type, versionText),
      fmt::format("Corvane{}{}ValueTransformer", valueClass, type),
      fmt::format("Corvane{}ValueTransformer{}", valueClass, versionText),
      fmt::format("Corvane{}ValueTransformer", valueClass),
  };
  auto& registry = ValueTransformerRegistry::shared();
  for (const std::string& name : names) {
    if (auto transformer = registry.valueTransformerForName(name)) return transformer;
  }
  throw Exception(kNoTransformerException, "Not found: " + names[3]);
}

// ---- Strings, numbers, Booleans ------------------------------------------------------------

Value CorvaneNSStringValueTransformer::transformedValue(const Value& value) const { return value.copy(); }
Value CorvaneNSStringValueTransformer::reverseTransformedValue(const Value& value) const { return value.copy(); }

Value CorvaneNSNumberValueTransformer::transformedValue(const Value& value) const {
  if (value.isNil()) return Value();
  const std::string text = value.description();
  auto parsed = Decimal::fromString(text);
  if (!parsed) return Value::decimal(Decimal::notANumber());
  // Well-formed, but with an exponent beyond what a decimal holds ("1e300", "1e-200"): read
  // it as a double rather than calling a real number not-a-number.
  if (parsed->isNaN() && text != "NaN") {
    return Value::doubleNumber(value.isNumber() ? value.doubleValue() : Value(text).doubleValue());
  }
  return Value::decimal(*parsed);
}

Value CorvaneNSNumberValueTransformer::reverseTransformedValue(const Value& value) const {
  if (value.isNil()) return Value();
  return Value(value.description());
}

Value CorvaneNSNumber800ValueTransformer::transformedValue(const Value& value) const { return value.copy(); }
Value CorvaneNSNumber800ValueTransformer::reverseTransformedValue(const Value& value) const { return value.copy(); }

// ---- Dates ---------------------------------------------------------------------------------

CorvaneNSDateValueTransformer::CorvaneNSDateValueTransformer() : CorvaneNSDateValueTransformer(DateTimeZone::gmt()) {}

CorvaneNSDateValueTransformer::CorvaneNSDateValueTransformer(DateTimeZone zone)
    : formatter_(kTimestampDatePattern, zone) {}

Value CorvaneNSDateValueTransformer::transformedValue(const Value& value) const {
  if (value.isNil() || !value.isString()) return Value();
  auto seconds = formatter_.parse(value.str());
  return seconds ? Value::date(*seconds) : Value();
}

Value CorvaneNSDateValueTransformer::reverseTransformedValue(const Value& value) const {
  if (!value.isDate()) return Value();
  return Value(formatter_.format(value.dateValue()));
}

CorvaneNSDateValueTransformer2::CorvaneNSDateValueTransformer2(Env* env)
    : CorvaneNSDateValueTransformer(DateTimeZone::local(env)) {}

// ---- Binary values -------------------------------------------------------------------------

CorvaneNSDataValueTransformer::CorvaneNSDataValueTransformer(Env* env)
    : env_(env != nullptr ? env : Env::defaultEnv()) {}

Value CorvaneNSDataValueTransformer::transformedValue(const Value& value) const { return value.copy(); }

Value CorvaneNSDataValueTransformer::reverseTransformedValue(const Value& value) const {
  if (value.isNil()) return Value();
  return Value(env_->newUUIDString());
}

// ---- Display -------------------------------------------------------------------------------

namespace {
long countUIDs(const Value& byEntity) {
  long n = 0;
  for (const auto& entry : byEntity.entries())
    n += static_cast<long>(entry.second.isDictionary() ? entry.second.count() : 0);
  return n;
}
}  // namespace

Value CorvaneChangeCountValueTransformer::transformedValue(const Value& value) const {
  const Value& changes = value["changes"];
  return Value(fmt::format("{} {}, {} {}, {} {}", "Inserted", countUIDs(changes["insert"]), "Updated",
                           countUIDs(changes["update"]), "Deleted", countUIDs(changes["delete"])));
}

}  // namespace corvane
