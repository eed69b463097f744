#include "PropertyCommands.h"

#include <cinttypes>
#include <cstdio>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "ResultPrinter.h"
#include "Settings.h"
#include "terminal/TextHelpers.h"

namespace lumora::shell {

namespace hs = halden::sensor;

namespace {

constexpr const char* kEndOfLine = "\n\r";

// KEY up to the first blank, VALUE up to the next one.
std::pair<std::string, std::string> key_and_value(const std::string& argument) {
    const size_t blank = argument.find(' ');
    if (blank == std::string::npos) return {argument, {}};
    const std::string rest = argument.substr(blank + 1);
    return {argument.substr(0, blank), rest.substr(0, rest.find(' '))};
}

std::vector<std::string> words(const std::string& text) {
    std::istringstream in(text);
    std::vector<std::string> result;
    for (std::string word; in >> word;)
        result.push_back(word);
    return result;
}

void set_log_level(const hs::LumoraProperty& property) {
    std::int64_t level = 0;
    if (property.dataType() == hs::DATA_TYPE_INT32) {
        level = property.getInt32();
    } else if (property.dataType() == hs::DATA_TYPE_FLOAT64) {
        level = static_cast<std::int64_t>(property.getDouble());
    } else {
        return;
    }
    // Only an upper bound: a negative level is passed on as it is.
    if (level <= 4) hs::Log::setLogLevel(static_cast<hs::Log::LogLevel>(level));
}

void print_calibration(const hs::LumoraCamera& camera, const std::string& key) {
    constexpr int kLens = 0;
    if (key == "distortion_coefficients") {
        hs::DistortionCoefficients d{};
        camera.getDistortionCoefficients(kLens, d);
        std::printf("-> result : %s%s", key.c_str(), kEndOfLine);
        const std::pair<const char*, double> lines[] = {
            {"RadialCoefficient(K1)", d.k1},     {"RadialCoefficient(K2)", d.k2},     {"RadialCoefficient(K3)", d.k3},
            {"TangentialCoefficient(P1)", d.p1}, {"TangentialCoefficient(P2)", d.p2}, {"skewCoefficient", d.skew},
        };
        for (const auto& [name, value] : lines)
            std::printf("\t%s = %f%s", name, value, kEndOfLine);
    } else if (key == "intrinsic_parameters") {
        hs::IntrinsicParameters p{};
        camera.getIntrinsicParameters(kLens, p);
        std::printf(
            "\tForcalLength(fx) = %f%s\tForcalLength(fy) = %f%s\tPrincipalPoint(cx) = %f%s"
            "\tPrincipalPoint(cy) = %f%s",
            p.fx, kEndOfLine, p.fy, kEndOfLine, p.cx, kEndOfLine, p.cy, kEndOfLine);
    } else if (key == "extrinsic_parameters") {
        hs::ExtrinsicParameters p{};
        camera.getExtrinsicParameters(kLens, p);
        for (int r = 0; r < 3; ++r)
            for (int i = 0; i < 3; ++i)
                std::printf("\tRotationParameters(r%d[%d]) = %f%s", r + 1, i, p.rotation[r][i], kEndOfLine);
        std::printf("\ttranslation(tx) = %f%s\ttranslation(ty) = %f%s\ttranslation(tz) = %f%s", p.tx, kEndOfLine, p.ty,
                    kEndOfLine, p.tz, kEndOfLine);
    } else if (key == "fov") {
        hs::FieldOfView f{};
        camera.getFieldOfView(kLens, f);
        std::printf("\tFoV : %f(H) x %f(V)%s", f.horizontal, f.vertical, kEndOfLine);
    }
}

bool is_calibration_key(const std::string& key) {
    return key == "distortion_coefficients" || key == "intrinsic_parameters" || key == "extrinsic_parameters" ||
           key == "fov";
}

}  // namespace

std::shared_ptr<hs::LumoraProperty> make_typed_property(const std::string& key, const std::string& value) {
    if (!terminal::isNumber(value)) return hs::make_property_string(key, value);
    if (terminal::isInteger(value)) {
        try {
            return hs::make_property_32s(key, terminal::toInt(value, 0));
        } catch (const std::out_of_range&) {
            // An integer beyond 32 bits is still a number.
        }
    }
    return hs::make_property_64f(key, terminal::toDouble(value, 0));
}

void print_property(const char* prefix, const hs::LumoraProperty& property) {
    std::printf("%s%s", prefix, property.key().c_str());
    switch (property.dataType()) {
        case hs::DATA_TYPE_BOOL:
            std::printf(", %d\n", property.getBool() ? 1 : 0);
            break;
        case hs::DATA_TYPE_INT8:
            std::printf(", %hhd\n", property.getInt8());
            break;
        case hs::DATA_TYPE_UINT8:
            std::printf(", %hhu\n", property.getUInt8());
            break;
        case hs::DATA_TYPE_INT16:
            std::printf(", %hd\n", property.getInt16());
            break;
        case hs::DATA_TYPE_UINT16:
            std::printf(", %hu\n", property.getUInt16());
            break;
        case hs::DATA_TYPE_INT32:
            std::printf(", %d\n", property.getInt32());
            break;
        case hs::DATA_TYPE_UINT32:
            std::printf(", %u\n", property.getUInt32());
            break;
        case hs::DATA_TYPE_FLOAT32:
            std::printf(", %f\n", static_cast<double>(property.getFloat()));
            break;
        case hs::DATA_TYPE_INT64:
            std::printf(", %lld\n", static_cast<long long>(property.getInt64()));
            break;
        case hs::DATA_TYPE_UINT64:
            std::printf(", %llu\n", static_cast<unsigned long long>(property.getUInt64()));
            break;
        case hs::DATA_TYPE_FLOAT64:
            std::printf(", %f\n", property.getDouble());
            break;
        case hs::DATA_TYPE_STRING:
            std::printf(", %s\n", property.getString({}).c_str());
            break;
        default:
            std::printf("\n");
            break;
    }
}

Outcome set(ShellContext& context, const std::string& argument) {
    const auto [key, value] = key_and_value(argument);
    const auto property = make_typed_property(key, value);
    if (key == "log_level") set_log_level(*property);
    hs::Result result = hs::set_property(property);
    if (result == hs::RESULT_NOT_SUPPORTED && context.camera) result = context.camera->setProperty(property);
    if (result != hs::RESULT_NOT_SUPPORTED) return result;
    return set_setting(context, key, property.get(), argument.substr(std::min(argument.size(), key.size() + 1)));
}

Outcome get(ShellContext& context, const std::string& argument) {
    const auto [key, value] = key_and_value(argument);
    const auto [result, property] = hs::get_property(key);
    if (result == hs::RESULT_SUCCESS && property) {
        print_property("-> result : ", *property);
        return std::nullopt;
    }
    if (result != hs::RESULT_NOT_SUPPORTED) return result;
    const Outcome setting = get_setting(context, key, make_typed_property(key, value).get());
    if (setting != Outcome(hs::RESULT_NOT_SUPPORTED)) return setting;
    if (!context.camera) return hs::RESULT_NOT_SUPPORTED;
    if (key == "lenses") {
        std::printf("\tlenses = %d%s", context.camera->lensCount(), kEndOfLine);
        return std::nullopt;
    }
    if (!is_calibration_key(key)) return hs::RESULT_NOT_SUPPORTED;
    print_calibration(*context.camera, key);
    return std::nullopt;
}

Outcome setpl(ShellContext& context, const std::string& argument) {
    const std::vector<std::string> parts = words(argument);
    if (parts.empty() || parts.size() % 2 == 0) return hs::RESULT_INVALID_PARAMETER;
    const auto properties = hs::make_properties(parts.front());
    for (size_t i = 1; properties && i + 1 < parts.size(); i += 2) {
        if (properties->add(make_typed_property(parts[i], parts[i + 1])) != hs::RESULT_SUCCESS)
            std::printf("_properties->add(%s) failed.\n", parts[i].c_str());
    }
    if (!context.camera || !properties) return hs::RESULT_INVALID_PARAMETER;
    return context.camera->setProperties(properties);
}

Outcome getpl(ShellContext& context, const std::string& argument) {
    const std::string name = key_and_value(argument).first;
    const auto [result, properties] = context.camera->getProperties(name);
    if (result != hs::RESULT_SUCCESS || !properties) return result == hs::RESULT_SUCCESS ? hs::RESULT_FAIL : result;
    std::printf("-> properties(%s) : %s", properties->name().c_str(), kEndOfLine);
    for (size_t i = 0; i < properties->size(); ++i)
        if (const auto property = properties->at(i)) print_property("\t+property : ", *property);
    return std::nullopt;
}

}  // namespace lumora::shell
