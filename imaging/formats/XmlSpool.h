// An XML document that is read again before it goes anywhere.
#pragma once

#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace imaging {

/// Writes a document into a nameless temporary file: it may be larger than memory.
class XmlSpool {
public:
    /// An attribute; none where the name is empty.
    struct Attribute {
        std::string name;
        std::string value;
    };

    /// Bytes of a piece that read() hands over, but for the last.
    static constexpr std::size_t kPieceBytes = std::size_t{64} * 1024;

    /// @throws VolumeError  there is no room, here and below
    XmlSpool();
    XmlSpool(XmlSpool const&) = delete;
    XmlSpool& operator=(XmlSpool const&) = delete;
    ~XmlSpool();

    /// Begins an element; finish() ends it.
    void begin(char const* name, Attribute const& attribute = {});

    /// Writes an element that holds text alone.
    void element(char const* name, std::string const& text, Attribute const& attribute = {});

    /// Ends the elements and the document.
    void finish();

    /// Reads the finished document from its start, in pieces of kPieceBytes.
    void read(std::function<void(std::string_view)> const& sink);

private:
    struct Writer; ///< the XML library's

    std::unique_ptr<std::FILE, int (*)(std::FILE*)> file_;
    std::unique_ptr<Writer> writer_; // ends before the file that it writes
};

} // namespace imaging
