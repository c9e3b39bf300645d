#define ORVO_SOURCE "orvo_record"
#include <cctype>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "orvo_record.h"
#include "orvo_recordpath.h"
#include "orvo_trace.h"

namespace orvo {

namespace {

// Text values that could be misread in the token form are quoted: a leading
// bracket, a separator or assignment character, white space, a double quote,
// or any lower-case letter.
bool NeedsQuotes(const char* text)
{
    if (text[0] != 0 && std::strchr("({[", text[0]) != nullptr)
        return true;
    for (const char* p = text; *p != 0; ++p) {
        const unsigned char c = static_cast<unsigned char>(*p);
        if (std::strchr(";,:=", c) != nullptr || std::isspace(c) || std::islower(c) || c == '"')
            return true;
    }
    return false;
}

void AppendQuoted(cRecordString& out, const char* text)
{
    std::string quoted = "\"";
    for (const char* p = text; *p != 0; ++p) {
        if (*p == '"')
            quoted += '"';
        quoted += *p;
    }
    quoted += '"';
    out += quoted;
}

// The link of an external value up to (not including) the '=' that starts
// its actual value.
std::string LinkHead(const char* link)
{
    const char* bracket = std::strrchr(link, ']');
    const char* eq = std::strrchr(bracket != nullptr ? bracket : link, '=');
    return eq != nullptr ? std::string(link, eq - link) : std::string(link);
}

}  // namespace

cRecordString cRecordPar::GetTokenStr(bool All, const char* Sep) const
{
    cRecordString out;
    if (m_pElement == nullptr)
        return out;
    if (Sep == nullptr)
        Sep = "";
    out += m_pName;
    out += "=";
    if (m_Type & RECORD_FLAG_EMPTY)
        return out;
    if ((m_Type & 0x0F) == RECORD_RECORD) {
        out += "{";
        out += Sep;
        cRecordList list;
        GetIRec(list);
        cRecord child;
        for (bool more = list.GetFirst(child); more; more = list.GetNext(child)) {
            out += child.GetTokenStr(All, Sep).GetBuffer();
            out += Sep;
        }
        out += "}";
        return out;
    }
    const char* text = GetText();
    if (text == nullptr)
        return out;
    if ((m_Type & 0x0F) == RECORD_TEXT && NeedsQuotes(text))
        AppendQuoted(out, text);
    else
        out += text;
    return out;
}

std::string cRecordPar::ToString() const
{
    return GetTokenStr(true, " ").ToString();
}

cRecordString cRecord::GetTokenStr(bool All, const char* Sep) const
{
    cRecordString out;
    const int size = GetSize();
    // Keeps trace lines bounded; exactly 1024 bytes still print.
    if (size > 1024) {
        char message[128];
        std::snprintf(message, sizeof message,
                      "record to large for printing, size=%i; size must be less-than 1024; ", size);
        out += message;
        return out;
    }
    if (Sep == nullptr)
        Sep = "";
    if (All) {
        bool first = true;
        for (cRecordPar par = GetFirstPar(); par.IsValid(); SeekNextPar(par)) {
            if (!first) {
                out += ",";
                out += Sep;
            }
            first = false;
            out += par.GetTokenStr(All, Sep).GetBuffer();
        }
    }
    out += " ";
    return out;
}

std::string cRecord::ToString() const
{
    return "{" + GetTokenStr(true, " ").ToString() + "}";
}

std::string cRecord::ToString2(unsigned int Level, unsigned int MaxLevel) const
{
    std::string out;
    AppendIndented(out, Level, MaxLevel);
    return out;
}

void cRecord::AppendIndented(std::string& Out, unsigned int Level, unsigned int MaxLevel) const
{
    const unsigned int depth = Level > MaxLevel ? MaxLevel + 1 : Level;
    const std::string indent(3 * static_cast<size_t>(depth), ' ');
    if (IsEmpty()) {
        Out += indent + ".[empty].\n";
        return;
    }
    if (Level > MaxLevel) {
        Out += indent + "...\n";
        return;
    }
    for (cRecordPar par = GetFirstPar(); par.IsValid(); SeekNextPar(par)) {
        std::string line = indent + par.GetName() + " <" + par.GetTypeName(RECORD_SEL_TYPE) + "> = ";
        const int flags = par.GetType(RECORD_SEL_ALL);
        if (flags & RECORD_FLAG_MARKED)
            line += " [marked]";
        if (flags & RECORD_FLAG_TEMPLATE)
            line += " [template]";
        if (flags & RECORD_FLAG_EXTERNAL) {
            const char* link = par.GetLink();
            line += " [external " + LinkHead(link != nullptr ? link : "") + "]";
        }
        const int type = flags & 0x0F;
        char number[160];
        if (par.IsEmpty()) {
            line += "[-empty-]";
        } else if (type == RECORD_SINT || type == RECORD_UINT) {
            std::snprintf(number, sizeof number, "%s (0x%X)", par.GetText(), par.GetUInt());
            line += number;
        } else if (type == RECORD_SINT64 || type == RECORD_UINT64) {
            std::snprintf(number, sizeof number, "%s (0x%" PRIX64 ")", par.GetText(),
                          static_cast<uint64_t>(par.GetUInt64()));
            line += number;
        } else if (type != RECORD_RECORD) {
            const char* text = par.GetText();
            line += text != nullptr ? text : "";
        }
        Out += line + "\n";
        if (type == RECORD_RECORD && !par.IsEmpty()) {
            cRecordList list;
            par.GetIRec(list);
            cRecord child;
            for (bool more = list.GetFirst(child); more; more = list.GetNext(child))
                child.AppendIndented(Out, Level + 1, MaxLevel);
        }
    }
}

std::string cRecordPath::ToString() const
{
    if (m_Record.IsEmpty())
        return "root";
    std::string out;
    for (cRecordPar par = m_Record.GetFirstPar(nullptr, RECORD_RECORD, RECORD_SEL_TYPE); par.IsValid();
         m_Record.SeekNextPar(par, nullptr, RECORD_RECORD, RECORD_SEL_TYPE)) {
        cRecord filter;
        par.GetRecord(filter);
        if (!out.empty())
            out += " ";
        out += FormatString("%s<%s>=", par.GetName(),
                            filter.IsEmpty() ? "empty" : filter.ToString().c_str());
    }
    return out.empty() ? "root" : out;
}

}  // namespace orvo
