#include "ResourceKit/Manifest.h"

#include "Foundation/Url.h"
#include "ResourceKit/JsonNode.h"
#include "ResourceKit/ManifestBuilder.h"
#include "ResourceKit/Text.h"
#include "ResourceKit/UrlRules.h"

#include <algorithm>
#include <cctype>
#include <string_view>
#include <unordered_set>
#include <utility>

namespace Halvex::Kit {

namespace {

using Priority = App::ISchedulableResource::SchedulePriority;
using Type = JsonNode::Type;

struct Field {
    const char* name;
    Type type;
    bool required;
};

const char* NameOf(Type type) {
    switch (type) {
    case Type::Boolean:
        return "true or false";
    case Type::Natural:
        return "a number of bytes";
    case Type::String:
        return "a text";
    case Type::Object:
        return "an object";
    case Type::Array:
        return "a list";
    case Type::Null:
    case Type::Number:
        break;
    }
    return "something else";
}

const JsonNode* Find(const JsonNode& object, const std::string& name) {
    for (const auto& [key, value] : object.members) {
        if (key == name)
            return &value;
    }
    return nullptr;
}

/// Null also for a member of another type, which has its refusal already.
const JsonNode* Find(const JsonNode& object, const std::string& name, Type type) {
    const JsonNode* node = Find(object, name);
    return node != nullptr && node->type == type ? node : nullptr;
}

bool IsSha256(const std::string& text) {
    return text.size() == 64 && std::all_of(text.begin(), text.end(), [](unsigned char digit) {
               return std::isxdigit(digit) != 0;
           });
}

std::string LowerCase(std::string text) {
    for (char& character : text)
        character = static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
    return text;
}

class ManifestReader {
public:
    ManifestReader(const std::string& name, const Manifest::Options& options)
        : m_builder(name + ':', options), m_addressesNeeded(!options.fromFolder) {}

    ManifestResult Read(const std::string& document) {
        try {
            ReadRoot(ParseJson(document));
        } catch (const JsonError& error) {
            m_builder.Refuse(error.line, error.what());
        }
        return m_builder.Finish();
    }

private:
    // What is wrong with one field hides no mistake in the others.

    void ReadRoot(const JsonNode& root) {
        if (!CheckFields(root, "the manifest",
                         {{"baseUrl", Type::String, false}, {"bundles", Type::Array, true}}))
            return;
        // What stands beside the bundles is the baseUrl, or means it and has its refusal.
        m_addressesNeeded = m_addressesNeeded && root.members.size() == 1;
        if (const JsonNode* baseUrl = Find(root, "baseUrl", Type::String)) {
            CheckUrl(*baseUrl, "baseUrl");
            m_baseUrl = baseUrl->text;
            if (!CanBeABase(m_baseUrl))
                m_builder.Refuse(baseUrl->line,
                                 "baseUrl " + Quoted(m_baseUrl) + " has a query or a fragment");
        }
        if (const JsonNode* bundles = Find(root, "bundles", Type::Array)) {
            for (const auto& member : bundles->members)
                ReadBundle(member.second);
        }
    }

    void ReadBundle(const JsonNode& node) {
        if (!CheckFields(node, "a bundle",
                         {{"name", Type::String, true},
                          {"priority", Type::String, false},
                          {"startup", Type::Boolean, false},
                          {"files", Type::Array, true}}))
            return;
        Manifest::Bundle bundle;
        if (const JsonNode* name = Find(node, "name", Type::String)) {
            bundle.name = name->text;
            if (bundle.name.empty() || HasControlCharacters(bundle.name))
                m_builder.Refuse(name->line, "name " + Quoted(bundle.name) +
                                                 " is empty or has a control character");
        }
        if (const JsonNode* priority = Find(node, "priority", Type::String))
            bundle.priority = ReadPriority(*priority);
        if (const JsonNode* startup = Find(node, "startup", Type::Boolean))
            bundle.startup = startup->boolean;
        m_builder.AddBundle(std::move(bundle));
        if (const JsonNode* files = Find(node, "files", Type::Array)) {
            for (const auto& member : files->members)
                ReadFile(member.second);
        }
    }

    void ReadFile(const JsonNode& node) {
        if (!CheckFields(node, "a file",
                         {{"path", Type::String, true},
                          {"url", Type::String, false},
                          {"size", Type::Natural, false},
                          {"sha256", Type::String, false}}))
            return;
        ManifestBuilder::File file;
        file.baseUrl = m_baseUrl;
        if (const JsonNode* url = Find(node, "url", Type::String)) {
            CheckUrl(*url, "url");
            file.url = url->text;
        }
        if (const JsonNode* size = Find(node, "size", Type::Natural))
            file.expected.size = size->natural;
        if (const JsonNode* sha256 = Find(node, "sha256", Type::String))
            file.expected.sha256 = ReadSha256(*sha256);
        const JsonNode* path = Find(node, "path", Type::String);
        if (path != nullptr)
            file.path = path->text;
        const std::size_t line = path != nullptr ? path->line : node.line;
        if (m_addressesNeeded && Find(node, "url") == nullptr)
            m_builder.Refuse(line, "path " + Quoted(file.path) +
                                       " has no address: there is no url and no baseUrl");
        if (path != nullptr)
            m_builder.AddFile(line, std::move(file));
    }

    Priority ReadPriority(const JsonNode& node) {
        if (node.text == "high")
            return Priority::High;
        if (node.text == "low")
            return Priority::Low;
        if (node.text != "normal")
            m_builder.Refuse(node.line,
                             "priority " + Quoted(node.text) + " is none of high, normal and low");
        return Priority::Normal;
    }

    std::string ReadSha256(const JsonNode& node) {
        if (!IsSha256(node.text))
            m_builder.Refuse(node.line,
                             "sha256 " + Quoted(node.text) + " is not 64 hexadecimal digits");
        return LowerCase(node.text);
    }

    void CheckUrl(const JsonNode& node, const char* field) {
        if (!Networking::Url(node.text).isValid())
            m_builder.Refuse(node.line, std::string(field) + ' ' + Quoted(node.text) +
                                            " is no http or https address");
    }

    /// Refuses each field that is not what it is to be. False: there are none, it is no object.
    bool CheckFields(const JsonNode& node, const std::string& what,
                     const std::vector<Field>& fields) {
        if (node.type != Type::Object) {
            m_builder.Refuse(node.line, what + " must be an object");
            return false;
        }
        std::unordered_set<std::string_view> known;
        for (const auto& member : node.members) {
            if (known.insert(member.first).second)
                CheckField(member, what, fields);
            else
                m_builder.Refuse(member.second.line,
                                 what + " has the field " + Quoted(member.first) + " twice");
        }
        for (const Field& field : fields) {
            if (field.required && Find(node, field.name) == nullptr)
                m_builder.Refuse(node.line, what + " has no field " + Quoted(field.name));
        }
        return true;
    }

    void CheckField(const std::pair<std::string, JsonNode>& member, const std::string& what,
                    const std::vector<Field>& fields) {
        const auto& [key, value] = member;
        const auto field =
            std::find_if(fields.begin(), fields.end(),
                         [&key = key](const Field& candidate) { return key == candidate.name; });
        if (field == fields.end())
            m_builder.Refuse(value.line, what + " has an unknown field " + Quoted(key));
        else if (field->type != value.type)
            m_builder.Refuse(value.line, Quoted(key) + " must be " + NameOf(field->type));
    }

    ManifestBuilder m_builder;
    /// Of files that have no url.
    bool m_addressesNeeded;
    std::string m_baseUrl;
};

} // namespace

ManifestResult Manifest::Parse(const std::string& document, const std::string& name,
                               const Options& options) {
    return ManifestReader(name, options).Read(document);
}

} // namespace Halvex::Kit
