// Directory helpers: splitting DNs, the organisational-unit test, name
// cracking and the Group Policy record (from the system where it has no
// directory, and from a test directory), and the account domain of SIDs.
//
// Under Wine the system's RDN parser (DsGetRdnW) is an unimplemented stub
// that ends the process; the module's own parser splits DNs there instead.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "conditions/directory/active_directory.h"
#include "fake_directory.h"
#include "os/directory.h"
#include "os/environment.h"
#include "os/utf8.h"
#include "qv/status.h"
#include "support/log_capture.h"

namespace {

namespace ad = qv::ActiveDirectory;

// The exception `call` throws; fails the test when it throws none.
template <class Call>
ad::active_directory_exception Thrown(Call call) {
    try {
        call();
    } catch (const ad::active_directory_exception& e) {
        return e;
    }
    ADD_FAILURE() << "no active_directory_exception thrown";
    return ad::active_directory_exception(L"", 0);
}

std::vector<std::wstring> Flatten(const std::vector<ad::RdnComponent>& components) {
    std::vector<std::wstring> flat;
    for (const auto& c : components) flat.push_back(std::wstring(c.type) + L"|" + std::wstring(c.value));
    return flat;
}

// The module's own parser over a whole DN: the components in order, or the error.
std::vector<std::wstring> ParseAll(const std::wstring& dn, uint32_t* error) {
    std::vector<std::wstring> flat;
    const wchar_t* text = dn.c_str();
    size_t remaining = dn.size();
    *error = 0;
    while (remaining > 0) {
        os::RdnPart part;
        if ((*error = os::ParseRdn(&text, &remaining, &part)) != 0) break;
        flat.push_back(std::wstring(part.type, part.typeLength) + L"|" + std::wstring(part.value, part.valueLength));
    }
    return flat;
}

TEST(DistinguishedNames, OwnParserKeepsEscapesAndOrderAndRefusesWhatIsNoRdn) {
    uint32_t error = 0;
    EXPECT_EQ(ParseAll(LR"(CN=Smith\, Ann , OU = Sales;DC=corp,DC=local)", &error),
              (std::vector<std::wstring>{LR"(CN|Smith\, Ann)", L"OU|Sales", L"DC|corp", L"DC|local"}));
    EXPECT_EQ(error, 0u);
    EXPECT_EQ(ParseAll(LR"(CN="Ann, B",OU=a\ ,DC=x)", &error),
              (std::vector<std::wstring>{LR"(CN|"Ann, B")", LR"(OU|a\ )", L"DC|x"}));
    EXPECT_EQ(error, 0u);
    EXPECT_EQ(ParseAll(LR"(CN = "A\"nn"  ; DC=x)", &error), (std::vector<std::wstring>{LR"(CN|"A\"nn")", L"DC|x"}));
    EXPECT_EQ(error, 0u);
    for (const wchar_t* bad :
         {L"CN", L"=Ann", L"CN=\"Ann", L"CN=Ann\\", L"CN=A\"nn", L"C N=Ann", L"CN=\"Ann\" B", L"CN=\"Ann\\"}) {
        ParseAll(bad, &error);
        EXPECT_EQ(error, os::kInvalidDnSyntax) << bad;
    }
}

TEST(DistinguishedNames, SplittingFollowsTheSystemParser) {
    // On Windows the system parser is compared with the module's own; on
    // Linux and under Wine the module's own is the one used.
    for (const std::wstring dn : {L"CN=Ann,OU=Sales,DC=corp,DC=local", LR"(CN=Smith\, Ann,OU=Sales,DC=corp)",
                                  L"CN=Ann , OU=Sales ; DC=corp", LR"(CN="Ann, B",DC=x)", L"OU=Sales"}) {
        uint32_t error = 0;
        EXPECT_EQ(Flatten(ad::SplitDistinguishedName(dn)), ParseAll(dn, &error));
        EXPECT_EQ(error, 0u);
    }
    // A terminating zero kept in the text is not part of the DN.
    const std::wstring withZero(L"CN=Ann,DC=x\0", 12);
    EXPECT_EQ(ad::SplitDistinguishedName(withZero).size(), 2u);
    const auto e = Thrown([] { ad::SplitDistinguishedName(L"CN"); });
    EXPECT_NE(e.code(), 0u);
    EXPECT_EQ(e.message(), L"Failed to get RDN, error = " + std::to_wstring(e.code()) + L".");
}

TEST(DistinguishedNames, AnObjectIsPartOfAnOuOnlyStrictlyBelowItAndWithTheSameCase) {
    const std::wstring ann = L"CN=Ann,OU=Sales,DC=corp,DC=local";
    EXPECT_TRUE(ad::IsPartOfOU(ann, L"OU=Sales,DC=corp,DC=local"));
    EXPECT_TRUE(ad::IsPartOfOU(ann, L"DC=local"));
    EXPECT_FALSE(ad::IsPartOfOU(ann, L"OU=sales,DC=corp,DC=local"));
    EXPECT_FALSE(ad::IsPartOfOU(ann, L"ou=Sales,DC=corp,DC=local"));
    EXPECT_FALSE(ad::IsPartOfOU(ann, ann));
    EXPECT_FALSE(ad::IsPartOfOU(ann, L"OU=Sales,DC=other,DC=local"));
    EXPECT_FALSE(ad::IsPartOfOU(L"OU=Sales,DC=corp,DC=local", ann));
    EXPECT_TRUE(ad::IsComputerPartOfOU(L"CN=PC1,OU=Servers,DC=corp", L"OU=Servers,DC=corp"));
    EXPECT_FALSE(ad::IsComputerPartOfOU(L"CN=PC1,OU=Servers,DC=corp", L"OU=Clients,DC=corp"));

    auto e = Thrown([&] { ad::IsPartOfOU(L"", L"OU=Sales,DC=corp"); });
    EXPECT_EQ(e.message(), L"No components detected in the user's DN.");
    EXPECT_EQ(e.code(), 87u);
    e = Thrown([&] { ad::IsComputerPartOfOU(L"", L"OU=Sales,DC=corp"); });
    EXPECT_EQ(e.message(), L"No components detected in the computer's DN.");
}

TEST(DistinguishedNames, AnEmptyOuThrowsInvalidParameter) {
    auto e = Thrown([] { ad::IsPartOfOU(L"CN=Ann,DC=corp", L""); });
    EXPECT_EQ(e.code(), static_cast<uint32_t>(qv::status::kInvalidParameter));
    EXPECT_EQ(e.message(), L"No components detected in the OU's DN.");
    EXPECT_STREQ(e.what(), "No components detected in the OU's DN.");
    e = Thrown([] { ad::IsComputerPartOfOU(L"CN=PC1,DC=corp", L""); });
    EXPECT_EQ(e.message(), L"No components detected in the target OU's DN.");
}

TEST(DirectoryLookups, FailWithTheirReasonWhereThereIsNoDirectory) {
    const auto crack = Thrown([] { ad::ConvertNameToDistinguishedName(L"ann", L"corp.local"); });
    const auto record = Thrown([] { ad::GetUserDistinguishedNameFromRegistry(L"S-1-5-21-1-2-3-1104"); });
#ifdef _WIN32
    if (!os::RunningUnderWine()) GTEST_SKIP() << "needs a machine outside any domain";
    // Wine's DsBindW answers ERROR_CALL_NOT_IMPLEMENTED.
    EXPECT_EQ(crack.message(), L"Error 120 binding to domain controller.");
    EXPECT_EQ(crack.code(), 120u);
    EXPECT_EQ(record.message(), L"Failed to open the registry key to read user DN, error = 2.");
    EXPECT_EQ(record.code(), 2u);
#else
    EXPECT_EQ(crack.message(), L"Name cracking is not supported on this system.");
    EXPECT_EQ(record.message(), L"Reading the user's DN from the registry is not supported on this system.");
    EXPECT_EQ(crack.code(), static_cast<uint32_t>(qv::status::kNotSupported));
    EXPECT_EQ(record.code(), static_cast<uint32_t>(qv::status::kNotSupported));
#endif
}

// The system's RDN parser is never called under Wine; the module's own
// splits DNs there, and the log says so.
TEST(SystemDirectory, UsesTheModulesOwnRdnParserUnderWineAndSaysSo) {
    testing_support::LogCapture capture;
    const ad::SystemDirectory system;
    EXPECT_EQ(system.UsesOwnRdnParser(), os::RunningUnderWine());
    EXPECT_EQ(capture.Contains(L"The system's RDN parser cannot be used (running under Wine, whose DsGetRdnW is an "
                               L"unimplemented stub); the module's own parser splits distinguished names"),
              os::RunningUnderWine());
}

// What the directory and the Group Policy record answer, turned into a DN or
// an exception with the reason and code.
TEST(DirectoryLookups, EachAnswerBecomesTheDnOrItsError) {
    condition_testing::FakeDirectory directory;
    const auto crack = [&](os::NameCrackOutcome outcome, uint32_t error, uint32_t itemStatus, bool hasName) {
        os::NameCrack answer;
        answer.outcome = outcome;
        answer.error = error;
        answer.itemStatus = itemStatus;
        answer.hasName = hasName;
        directory.SetCrack(L"ann@corp.local", answer);
        return Thrown([] { ad::ConvertNameToDistinguishedName(L"ann", L"corp.local"); });
    };
    struct Expected {
        ad::active_directory_exception thrown;
        std::wstring message;
        uint32_t code;
    };
    const std::vector<Expected> cracks = {
        {Thrown([] { ad::ConvertNameToDistinguishedName(L"bob", L"corp.local"); }),
         L"Error 1355 binding to domain controller.", 1355},
        {crack(os::NameCrackOutcome::kCrackFailed, 1722, 0, false), L"Error 1722 getting object path from name.", 1722},
        {crack(os::NameCrackOutcome::kCracked, 0, os::kNameErrorNotFound, false),
         L"Error (status 2) converting name to distinguished name; returning ERROR_NOT_FOUND.", 1168},
        {crack(os::NameCrackOutcome::kCracked, 0, os::kNameErrorDomainOnly, true),
         L"Error (status 5) converting name to distinguished name; returning ERROR_NOT_FOUND.", 1168},
        {crack(os::NameCrackOutcome::kCracked, 0, 3, true), L"Error (status 3) converting name to distinguished name.",
         3},
        {crack(os::NameCrackOutcome::kCracked, 0, 0, false),
         L"Error converting name to distinguished name (output nullptr).", 5023},
    };
    const auto record = [&](os::RegistryReadOutcome outcome, uint32_t error, uint32_t type) {
        os::RegistryString answer;
        answer.outcome = outcome;
        answer.error = error;
        answer.type = type;
        directory.SetRecord(L"S-1-5-21-1-2-3-1104", answer);
        return Thrown([] { ad::GetUserDistinguishedNameFromRegistry(L"S-1-5-21-1-2-3-1104"); });
    };
    const std::vector<Expected> records = {
        {Thrown([] { ad::GetUserDistinguishedNameFromRegistry(L"S-1-5-21-1-2-3-1105"); }),
         L"Failed to open the registry key to read user DN, error = 2.", 2},
        {record(os::RegistryReadOutcome::kMissing, 2, 0),
         L"Failed to read the user's DN from the registry, value is invalid/does not exist, last error = 2.", 2},
        {record(os::RegistryReadOutcome::kNotString, 0, 4),
         L"Failed to read the user's DN from the registry, value type is 4 instead of string, last error = 0.", 0},
    };
    for (const std::vector<Expected>* table : {&cracks, &records}) {
        for (const Expected& e : *table) {
            EXPECT_EQ(e.thrown.message(), e.message);
            EXPECT_EQ(e.thrown.code(), e.code) << e.message;
        }
    }

    testing_support::LogCapture capture;
    directory.SetUserDn(L"ann@corp.local", L"CN=Ann,OU=Sales,DC=corp,DC=local");
    EXPECT_EQ(ad::ConvertNameToDistinguishedName(L"ann", L"corp.local"), L"CN=Ann,OU=Sales,DC=corp,DC=local");
    EXPECT_TRUE(
        capture.Contains(logging::kTrace, L"qv::ActiveDirectory::ConvertNameToDistinguishedName",
                         L"Name cracking: status = 0, domain = corp.local, path = CN=Ann,OU=Sales,DC=corp,DC=local"));
    directory.SetRecordedDn(L"S-1-5-21-1-2-3-1104", L"CN=Ann,OU=Sales,DC=corp,DC=local");
    EXPECT_EQ(ad::GetUserDistinguishedNameFromRegistry(L"S-1-5-21-1-2-3-1104"), L"CN=Ann,OU=Sales,DC=corp,DC=local");
}

// One table for both builds: what the Windows functions (string SID
// conversion and the account domain of a SID, checked under Wine) answer,
// and whether the SID then counts as a domain's. Only a SID of the machine's
// own account domain is local; built-in and well-known SIDs, and text that is
// no SID, are not.
TEST(Sids, AccountDomainsAndDomainMembershipAsOnWindows) {
    const std::wstring host = qv::GetHostAccountDomainSid();
    ASSERT_FALSE(host.empty());
    ASSERT_EQ(ad::GetAccountDomainSid(host), host);
    struct Case {
        std::wstring sid;
        std::wstring accountDomain;
        bool domain;
    };
    const std::vector<Case> cases = {
        {L"S-1-5-21-1-2-3-1104", L"S-1-5-21-1-2-3", true},
        {L"s-1-5-21-1-2-3-1104", L"S-1-5-21-1-2-3", true},
        {L"S-1-5-21-4000000000-22-333-500", L"S-1-5-21-4000000000-22-333", true},
        {L"S-1-5-21-4294967295-1-2-3", L"S-1-5-21-4294967295-1-2", true},
        {L"S-1-5-21-01-2-3-4", L"S-1-5-21-1-2-3", true},
        {L"S-1-5-21-1-2-3", L"S-1-5-21-1-2-3", true},  // a domain's own SID
        {L"S-1-5-21-1-2-3-4-5-6", L"S-1-5-21-1-2-3", true},
        {L"S-1-5-21-1-2", L"", true},
        {L"S-1-5-32-544", L"", true},  // built-in
        {L"S-1-1-0", L"", true},       // well-known
        {L"S-1-5-18", L"", true},
        {L"S-1-16-12288", L"", true},
        {L"BA", L"", true},  // SDDL abbreviations of built-in and well-known SIDs
        {L"WD", L"", true},
        {L"SY", L"", true},
        {L"nonsense", L"", true},
        {L"", L"", true},
        {L"S-2-5-21-1-2-3-500", L"", true},
        {L"S-1-5", L"", true},
        {L"S-1-5-21-1-2-3-1104x", L"", true},
        {L"S-1-5-21-1-2-3-1104 ", L"", true},
        {L"S-1-5-21-+1-2-3-4", L"", true},
        {host, host, false},
        {host + L"-1001", host, false},
        {L"s" + host.substr(1) + L"-500", host, false},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(ad::GetAccountDomainSid(c.sid), c.accountDomain) << "[" << os::WideToUtf8Lossy(c.sid) << "]";
        EXPECT_EQ(ad::IsDomainSid(c.sid), c.domain) << "[" << os::WideToUtf8Lossy(c.sid) << "]";
    }
#ifdef _WIN32
    if (os::RunningUnderWine()) {
        EXPECT_EQ(host, L"S-1-5-21-0-0-0");
    }
#endif
    EXPECT_TRUE(ad::EqualIgnoringCase(L"S-1-5-21-AbC", L"s-1-5-21-aBc"));
    EXPECT_FALSE(ad::EqualIgnoringCase(L"S-1-5-21", L"S-1-5-2"));
}

}  // namespace
