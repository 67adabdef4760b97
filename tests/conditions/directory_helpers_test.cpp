// Directory helpers: splitting DNs, the organisational-unit test, name
// cracking and the Group Policy record where the system has no directory,
// and the account domain of SIDs.
//
// Under Wine the system's RDN parser (DsGetRdnW) is an unimplemented stub
// that ends the process, and there is no domain to bind to: the cases that
// split a non-empty DN are skipped there, the others run.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "conditions/directory/active_directory.h"
#include "os/directory.h"
#include "os/environment.h"
#include "qv/status.h"

namespace {

namespace ad = qv::ActiveDirectory;

constexpr const char* kNoSystemRdnParser = "Wine's DsGetRdnW is an unimplemented stub that aborts the process";

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
    for (const wchar_t* bad : {L"CN", L"=Ann", L"CN=\"Ann", L"CN=Ann\\", L"CN=A\"nn", L"C N=Ann"}) {
        ParseAll(bad, &error);
        EXPECT_EQ(error, os::kInvalidDnSyntax) << bad;
    }
}

TEST(DistinguishedNames, SplittingFollowsTheSystemParser) {
    if (os::RunningUnderWine()) GTEST_SKIP() << kNoSystemRdnParser;
    // On Windows the system parser is compared with the module's own; on
    // Linux the module's own is the system's.
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
    if (os::RunningUnderWine()) GTEST_SKIP() << kNoSystemRdnParser;
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

// The OU is split first, so an empty one throws before the system parser is
// ever called: this runs under Wine too.
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

TEST(Sids, AccountDomainsAndDomainMembership) {
    EXPECT_EQ(ad::GetAccountDomainSid(L"S-1-5-21-1-2-3-1104"), L"S-1-5-21-1-2-3");
    EXPECT_EQ(ad::GetAccountDomainSid(L"S-1-5-21-4000000000-22-333-500"), L"S-1-5-21-4000000000-22-333");
    EXPECT_EQ(ad::GetAccountDomainSid(L"S-1-5-32-544"), L"");  // built-in, no account domain
    EXPECT_EQ(ad::GetAccountDomainSid(L"S-1-1-0"), L"");
    EXPECT_EQ(ad::GetAccountDomainSid(L"not a sid"), L"");
    EXPECT_EQ(ad::GetAccountDomainSid(L""), L"");

    const std::wstring host = qv::GetHostAccountDomainSid();
#ifdef _WIN32
    if (os::RunningUnderWine()) {
        EXPECT_EQ(host, L"S-1-5-21-0-0-0");
    }
    EXPECT_FALSE(host.empty());
#else
    EXPECT_EQ(host, L"");
#endif
    // A local account belongs to the machine's own account domain; where
    // the machine has none, a SID without an account domain stands for one.
    const std::wstring local = host.empty() ? L"S-1-5-32-544" : host + L"-1001";
    EXPECT_FALSE(ad::IsDomainSid(local));
    EXPECT_TRUE(ad::IsDomainSid(L"S-1-5-21-1-2-3-1104"));
    EXPECT_TRUE(ad::IsDomainSid(L"s-1-5-21-1-2-3-1104"));
    EXPECT_TRUE(ad::EqualIgnoringCase(L"S-1-5-21-AbC", L"s-1-5-21-aBc"));
    EXPECT_FALSE(ad::EqualIgnoringCase(L"S-1-5-21", L"S-1-5-2"));
}

}  // namespace
