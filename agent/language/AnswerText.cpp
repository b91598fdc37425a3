#include "agent/language/AnswerText.h"

#include "agent/json/Json.h"
#include "text/Words.h"

namespace Agent {

std::string addressText(const L3::IpGenAddr& address) {
    return address == L3::IpGenAddr() ? "any" : address.stringValue();
}

std::string answerWords(const Answer& answer, std::string_view absent) {
    if (const auto* number = std::get_if<std::uint32_t>(&answer))
        return std::to_string(*number);
    const auto* oifs = std::get_if<KestrelNat::NatMrouteOifSet>(&answer);
    if (oifs == nullptr)
        return std::string(absent);
    std::vector<std::string_view> words;
    for (const L3::IntfId intf : oifs->oif())
        words.emplace_back(intf.stringValue());
    return words.empty() ? "none" : Text::joined(words, " ");
}

namespace {

// "mroute (10.0.0.1, 239.1.1.1) in red for Ethernet5 vlan 10: Ethernet1 Ethernet2"; "gone" where there is none any
// more.
std::string answerLine(const AnswerChange& change, const VrfNames& vrfs) {
    const RequestKey& key = change.key;
    std::string line(change.service->name);
    line += " (" + addressText(key.sourceIp) + ", " + addressText(key.groupIp) + ") in ";
    line += vrfs.text(key.vrfId.value()) + " for " + key.intf.stringValue() + " vlan ";
    return line + std::to_string(key.vlanId) + ": " + answerWords(change.answer, "gone");
}

} // namespace

void writeAnswerMembers(Text::Writer& writer, const VrfNames& vrfs, const AnswerChange& change,
                        bool withText) {
    writer.member("path", change.service->answerPath);
    writer.member("attribute", change.service->answerAttribute);
    writer.field("key");
    Json::writeValue(writer, change.key);
    writer.field("value");
    if (const auto* oifs = std::get_if<KestrelNat::NatMrouteOifSet>(&change.answer))
        Json::writeValue(writer, *oifs);
    else if (const auto* number = std::get_if<std::uint32_t>(&change.answer))
        writer.value(*number);
    else
        writer.value(nullptr);
    if (!withText)
        return;
    const std::string_view name = vrfs.find(change.key.vrfId.value());
    if (!name.empty())
        writer.member("vrf", name);
    writer.member("text", answerLine(change, vrfs));
}

void writeAnswers(Text::Writer& writer, const VrfNames& vrfs, std::span<const AnswerChange> answers,
                  bool withText) {
    writer.beginList();
    for (const AnswerChange& change : answers) {
        if (writer.isForPeople()) {
            writer.value(answerLine(change, vrfs));
            continue;
        }
        writer.beginRecord();
        writeAnswerMembers(writer, vrfs, change, withText);
        writer.end();
    }
    writer.end();
}

void writeApplied(Text::Writer& writer, const Operations& operations, const ApplyResult& result,
                  bool withText) {
    const VrfNames vrfs(operations);
    if (writer.isForPeople())
        return writeAnswers(writer, vrfs, result.answers, withText);
    writer.beginRecord();
    writer.member("changed", result.changed);
    writer.field("answers");
    writeAnswers(writer, vrfs, result.answers, withText);
    writer.end();
}

} // namespace Agent
