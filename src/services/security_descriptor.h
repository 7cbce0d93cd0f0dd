#pragma once
// Security descriptors of files, folders, registry keys and services, read
// and written exactly, and converted to and from SDDL.
//
// A descriptor travels as self-relative bytes: owner, group, DACL, the SACL
// when it was read with one, and the control bits (protected, auto-inherited)
// that say how the DACL relates to the parent's. Writing puts back exactly
// those parts: the calls used (SetFileSecurityW, RegSetKeySecurity,
// SetServiceObjectSecurity) store the descriptor as given and never
// propagate inheritable entries to children the way SetNamedSecurityInfoW
// does, so a restore touches the one object only.
//
// Names: a file or folder path; a registry key as its root handle's number
// (0..3, as the RegistryEx table) and path, in the view given; a service by
// its name. Every failure throws setup::Exception with the Win32 error and
// "Failed to read the security descriptor of '<name>'." or "Failed to write
// the security descriptor of '<name>'."; the object is then unchanged, but
// for a write that set the owner and then failed on the DACL.
//
// Wine stores no descriptor on files (a write only changes the Unix mode
// bits, a read is made up from them); keys keep theirs in the server's
// memory; services are stubs. The tests say which of these they rely on.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace setup {

enum class SecuredKind { File, RegistryKey, Service };

struct SecuredObject {
    SecuredKind kind = SecuredKind::File;
    std::wstring name;       // path, key path or service name
    int root = 2;            // registry keys: 0..3
    std::uint32_t view = 0;  // registry keys: KEY_WOW64_64KEY, KEY_WOW64_32KEY or 0
};

// The owner, group and DACL of `object` (and its SACL when `withSacl`, with
// the security privilege enabled for that call alone).
std::vector<unsigned char> ReadSecurityDescriptor(const SecuredObject& object, bool withSacl);

// Puts back the parts the bytes hold, exactly (with the restore and security
// privileges enabled for the call alone).
void WriteSecurityDescriptor(const SecuredObject& object, const std::vector<unsigned char>& descriptor);

// SDDL of every part the descriptor holds; throws E_INVALIDARG on bytes that
// are no descriptor.
std::wstring DescriptorToSddl(const std::vector<unsigned char>& descriptor);

// The self-relative descriptor an SDDL text gives. Throws E_INVALIDARG "The
// security descriptor '<sddl>' does not parse." (an unknown account alias
// included).
std::vector<unsigned char> SddlToDescriptor(std::wstring_view sddl);

// The SID of the account this thread runs as (its token's user) in string form.
std::wstring CurrentAccountSid();

// Enables one privilege of the process token for its lifetime and puts the
// previous state back; a privilege the token does not hold is no failure
// (the call that needs it then fails with its own error).
class PrivilegeScope {
public:
    explicit PrivilegeScope(const wchar_t* privilege);
    ~PrivilegeScope();
    PrivilegeScope(const PrivilegeScope&) = delete;
    PrivilegeScope& operator=(const PrivilegeScope&) = delete;

private:
    void* token_ = nullptr;
    std::vector<unsigned char> previous_;
};

}  // namespace setup
