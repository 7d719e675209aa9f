// Paths and access lists when the n-th seek or read goes wrong: a documented text or the right answer, and a parser
// that works afterwards.
#include "support/NtfsFileBench.h"
#include "support/NtfsSecureVolume.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace {

using namespace tests;

/// A reader that can be told to let the n-th call go wrong, counted from now.
class ArmedReader : public agent::core::IVolumeReader {
public:
    explicit ArmedReader(agent::core::IVolumeReader const& inner) : inner_(inner) {}

    void arm(Fault fault, unsigned n) { faulty_ = std::make_unique<FaultyReader>(inner_, fault, n); }

    /// Whether the fault happened.
    bool disarm() {
        bool const fired = faulty_ != nullptr && faulty_->fired;
        faulty_.reset();
        return fired;
    }

    long read(void* buffer, long length) const override { return current().read(buffer, length); }
    long seek(long offset, int whence) const override { return current().seek(offset, whence); }

private:
    agent::core::IVolumeReader const& current() const { return faulty_ != nullptr ? *faulty_ : inner_; }

    agent::core::IVolumeReader const& inner_;
    std::unique_ptr<FaultyReader> faulty_;
};

/// The directory many (30) has two levels, $SII too; the index of many lies in an extension record.
NtfsBuilder makeVolume() {
    NtfsGeometry geometry;
    geometry.securityLevels = 2;
    NtfsBuilder builder = NtfsBuilder::standard(geometry);
    NtfsIndexShape const shape = builder.directoryShape(2);
    NtfsRecord& many = builder.file(30, 5, u"many");
    NtfsRecord& extension = builder.record(31);
    extension.baseReference = many.reference();
    std::vector<NtfsName> names;
    for (char16_t letter = u'a'; letter <= u'h'; ++letter) {
        names.push_back({std::u16string(1, letter), builder.record(26).reference()});
    }
    builder.index(extension, u"$I30", shape, ntfsNameEntries(names, many.reference()));
    many.attributeList({{ntfs_type::kIndexRoot, extension.reference(), 0, u"$I30"},
                        {ntfs_type::kIndexAllocation, extension.reference(), 0, u"$I30"}});
    builder.directory(builder.record(5).remove(ntfs_type::kIndexRoot),
                      {{u"many", many.reference()}, {u"readme.txt", builder.record(24).reference()}});
    builder.seal();
    return builder;
}

/// The answer as text, or what was thrown.
using Request = std::function<std::string(NtfsAccess&)>;

std::string describe(std::vector<agent::core::fs::NTFS_ACL> const& lists) {
    std::string text;
    for (auto const& list : lists) {
        text += "list:";
        for (auto const& ace : list.aces) {
            text += " " + ace.sid + "=" + std::to_string(ace.accessMask);
        }
    }
    return text;
}

std::string answer(Request const& request, NtfsAccess& parser) {
    std::string text;
    std::string const failure = failureOf([&] { text = request(parser); });
    return failure == "nothing was thrown" ? text : failure;
}

struct Case {
    char const* name;
    Request request;
    std::vector<std::string> texts; ///< what it may throw, by their beginnings
};

std::vector<std::string> const& recordTexts() {
    static std::vector<std::string> const texts{"Could not read MFT record ",      "Could not find INDEX_ROOT",
                                                "Could not find INDEX_ALLOCATION", "Unable to read INDEX ENTRY",
                                                "Corrupt index block signature",   "Upcase file is not read."};
    return texts;
}

std::vector<Case> makeCases() {
    std::vector<std::string> security = recordTexts();
    security.insert(security.end(), {"Failed to read ACLs for \"\\readme.txt\": ", "Unable to read SDS entry"});
    return {
        {"Path",
         [](NtfsAccess& parser) {
             parser.read_upcase();
             return std::to_string(parser.convert_to_inode("\\many\\c"));
         },
         recordTexts()},
        {"StandardInformation",
         [](NtfsAccess& parser) {
             parser.read_upcase();
             return std::to_string(parser.getStandardInfo("\\many\\c").security_id.value());
         },
         recordTexts()},
        {"AccessLists", [](NtfsAccess& parser) { return describe(parser.readACLFromFile("\\readme.txt")); }, security}};
}

class NtfsFileFaults : public testing::TestWithParam<std::tuple<std::size_t, Fault>> {};

TEST_P(NtfsFileFaults, EndInADocumentedTextAndTheParserWorksAfterwards) {
    auto const [index, fault] = GetParam();
    Case const tried = makeCases().at(index);
    NtfsBuilder const builder = makeVolume();
    MemoryReader const volume(builder.bytes);
    std::string expected;
    {
        RecordingLogger logger;
        NtfsAccess parser(logger, 512, volume);
        expected = answer(tried.request, parser);
    }
    unsigned fired = 0;
    for (unsigned n = 0;; ++n) {
        SCOPED_TRACE("call " + std::to_string(n));
        ArmedReader reader(volume);
        RecordingLogger logger;
        NtfsAccess parser(logger, 512, reader);
        reader.arm(fault, n);
        std::string const text = answer(tried.request, parser);
        if (!reader.disarm()) {
            EXPECT_EQ(text, expected);
            break;
        }
        ++fired;
        bool const isDocumented =
            std::any_of(tried.texts.begin(), tried.texts.end(),
                        [&text = text](std::string const& beginning) { return text.starts_with(beginning); });
        // A short read of the table or of the stream leaves zeros, which may hide a name or a descriptor.
        bool const isGap = text.starts_with("Entry not found") || text.starts_with("Could not find entry") ||
                           text.starts_with("Could not find attribute with name $SII");
        bool const isShort = fault == Fault::ReadShort || fault == Fault::ReadEmpty;
        EXPECT_TRUE(text == expected || isDocumented || (isShort && isGap)) << text;
        // The table and the stream are kept as they came; all else is read anew.
        parser.clearSDS();
        std::string const again = answer(tried.request, parser);
        if (again != expected) {
            EXPECT_EQ(n, 1U) << again << ": only the read of the upcase table leaves anything behind";
        }
    }
    EXPECT_GE(fired, 6U) << "the request makes more calls than that";
}

std::string caseName(testing::TestParamInfo<std::tuple<std::size_t, Fault>> const& info) {
    static std::vector<std::string> const faults{"SeekFails", "ReadFails", "ReadShort", "ReadEmpty"};
    return makeCases().at(std::get<0>(info.param)).name + faults.at(static_cast<std::size_t>(std::get<1>(info.param)));
}

INSTANTIATE_TEST_SUITE_P(Calls, NtfsFileFaults,
                         testing::Combine(testing::Values(0U, 1U, 2U),
                                          testing::Values(Fault::SeekFails, Fault::ReadFails, Fault::ReadShort,
                                                          Fault::ReadEmpty)),
                         caseName);

} // namespace
