#define ORVO_SOURCE "orvo_obis"
#include "orvo_obis.h"

#include <cstdlib>
#include <vector>

#include "orvo_data.h"
#include "orvo_trace.h"

namespace orvo {

namespace {

// atoi of a present component placed at its bit position; unsigned
// arithmetic, so negative or large values wrap instead of overflowing.
unsigned long long Group(const std::string& component, unsigned shift)
{
    if (component.empty())
        return 0;
    const unsigned long long v =
        static_cast<unsigned long long>(static_cast<long long>(std::atoi(component.c_str())));
    return v << shift;
}

std::string ByteText(const unsigned long long& n, unsigned shift)
{
    return FormatString("%i", static_cast<int>((n >> shift) & 0xFF));
}

}  // namespace

// ---- cShort -------------------------------------------------------------------

void cObis::cShort::Clean()
{
    C.clear();
    D.clear();
    E.clear();
}

bool cObis::cShort::IsValid() const
{
    return !C.empty() || !D.empty() || !E.empty();
}

bool cObis::cShort::FromString(const std::string& text)
{
    Clean();
    const std::vector<std::string> parts = cHelper::GetStringTokens(text, ".");
    if (parts.size() == 2 || parts.size() == 3) {
        C = parts[0];
        D = parts[1];
        if (parts.size() == 3)
            E = parts[2];
        return true;
    }
    return false;
}

std::string cObis::cShort::ToString() const
{
    std::string text = C;
    if (!D.empty())
        text += "." + D;
    if (!E.empty())
        text += "." + E;
    return text;
}

bool cObis::cShort::FromNumber(const unsigned long long& n)
{
    C = ByteText(n, 16);
    D = ByteText(n, 8);
    E = ByteText(n, 0);
    return true;
}

unsigned long long cObis::cShort::ToNumber() const
{
    return Group(C, 16) + Group(D, 8) + Group(E, 0);
}

bool cObis::cShort::operator==(const cShort& other) const
{
    return C == other.C && D == other.D && E == other.E;
}

// ---- cObis --------------------------------------------------------------------

void cObis::Clean()
{
    A.clear();
    B.clear();
    Short.Clean();
    F.clear();
}

bool cObis::IsValid() const
{
    return !A.empty() && !B.empty() && Short.IsValid();
}

bool cObis::FromString(const std::string& text)
{
    Clean();
    const std::vector<std::string> parts = cHelper::GetStringTokens(text, ":");
    std::string rest;
    if (parts.size() == 1) {
        rest = parts[0];
    } else if (parts.size() == 2) {
        const std::vector<std::string> ab = cHelper::GetStringTokens(parts[0], "-");
        if (ab.size() != 2)
            return false;
        A = ab[0];
        B = ab[1];
        rest = parts[1];
    } else {
        return false;
    }

    const std::vector<std::string> sf = cHelper::GetStringTokens(rest, "*");
    if (sf.size() == 1) {
        Short.FromString(sf[0]);
    } else if (sf.size() == 2) {
        Short.FromString(sf[0]);
        F = sf[1];
    } else {
        return false;
    }
    return true;
}

std::string cObis::ToString() const
{
    std::string text;
    if (!A.empty() && !B.empty())
        text = A + "-" + B;
    if (Short.IsValid())
        text += ":" + Short.ToString();
    if (!F.empty())
        text += "*" + F;
    return text;
}

bool cObis::FromNumber(const unsigned long long& n)
{
    A = ByteText(n, 40);
    B = ByteText(n, 32);
    Short.C = ByteText(n, 24);
    Short.D = ByteText(n, 16);
    Short.E = ByteText(n, 8);
    F = ByteText(n, 0);
    return true;
}

unsigned long long cObis::ToNumber() const
{
    return Group(A, 40) + Group(B, 32) + Group(Short.C, 24) + Group(Short.D, 16) +
           Group(Short.E, 8) + Group(F, 0);
}

bool cObis::operator==(const cObis& other) const
{
    return A == other.A && B == other.B && Short == other.Short && F == other.F;
}

}  // namespace orvo
