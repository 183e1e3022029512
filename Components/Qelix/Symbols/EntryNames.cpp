#include "Symbols/EntryNames.h"

#include <dwarf.h>

namespace qelix
{
namespace
{

constexpr unsigned ZORV_MOST_REFERENCES = 8; // from one description of a function to the next

const char* TextOf(Dwarf_Die* pDie, unsigned name)
{
    Dwarf_Attribute attribute;
    return dwarf_attr_integrate(pDie, name, &attribute) != nullptr ? dwarf_formstring(&attribute) : nullptr;
}

// What is defined outside of its class or namespace refers to its declaration in there.
Dwarf_Die DeclarationOf(Dwarf_Die die)
{
    for (unsigned i = 0; i < ZORV_MOST_REFERENCES; ++i)
    {
        Dwarf_Attribute attribute;
        Dwarf_Die next;
        if ((dwarf_attr(&die, DW_AT_abstract_origin, &attribute) == nullptr &&
             dwarf_attr(&die, DW_AT_specification, &attribute) == nullptr) ||
            dwarf_formref_die(&attribute, &next) == nullptr)
        {
            break;
        }
        die = next;
    }
    return die;
}

// The child that is the entry at the offset or holds it.
bool StepTowards(Dwarf_Die* pDie, Dwarf_Off offset)
{
    Dwarf_Die child;
    if (dwarf_child(pDie, &child) != 0 || dwarf_dieoffset(&child) > offset)
    {
        return false;
    }
    Dwarf_Die next;
    while (dwarf_siblingof(&child, &next) == 0 && dwarf_dieoffset(&next) <= offset &&
           dwarf_dieoffset(&next) > dwarf_dieoffset(&child))
    {
        child = next;
    }
    *pDie = child;
    return true;
}

std::string PathPart(Dwarf_Die* pHolder)
{
    const char* pName = TextOf(pHolder, DW_AT_name);
    switch (dwarf_tag(pHolder))
    {
    case DW_TAG_namespace:
        return pName != nullptr ? std::string(pName) + "::" : "(anonymous namespace)::";
    case DW_TAG_class_type:
    case DW_TAG_structure_type:
    case DW_TAG_union_type:
        return pName != nullptr ? std::string(pName) + "::" : "(unnamed)::"; // as that of a lambda
    case DW_TAG_subprogram:
        return pName != nullptr ? std::string(pName) + "::" : "";
    default:
        return "";
    }
}

// An entry does not know what holds it: the way leads down from its unit.
std::string PathTo(Dwarf_Die entry, unsigned references = 0)
{
    std::string path;
    const Dwarf_Off offset = dwarf_dieoffset(&entry);
    Dwarf_Die at;
    if (dwarf_diecu(&entry, &at, nullptr, nullptr) == nullptr)
    {
        return path;
    }
    while (StepTowards(&at, offset) && dwarf_dieoffset(&at) != offset)
    {
        Dwarf_Die declared = DeclarationOf(at);
        if (declared.addr != at.addr && references < ZORV_MOST_REFERENCES)
        {
            path = PathTo(declared, references + 1);
        }
        path += PathPart(&at);
    }
    return path;
}

} // namespace

std::string NameOfFunction(Dwarf_Die* pFunction)
{
    for (const unsigned kind : {DW_AT_linkage_name, DW_AT_MIPS_linkage_name})
    {
        if (const char* pLinked = TextOf(pFunction, kind))
        {
            return pLinked;
        }
    }
    const char* pName = TextOf(pFunction, DW_AT_name);
    return pName == nullptr ? "" : PathTo(DeclarationOf(*pFunction)) + pName;
}

} // namespace qelix
