// The XML library's writer on a temporary file.
#include "imaging/formats/XmlSpool.h"

#include "imaging/Error.h"

#include <libxml/xmlwriter.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace imaging {

namespace {

[[noreturn]] void fail() {
    throw VolumeError(Trouble::Io, std::string("the temporary file of the list: ") + std::strerror(errno));
}

/// The library's calls give what they wrote, or -1.
void require(int result) {
    if (result < 0) {
        fail();
    }
}

xmlChar const* xml(char const* text) {
    return reinterpret_cast<xmlChar const*>(text);
}

int writeInto(void* file, char const* bytes, int count) {
    auto const size = static_cast<std::size_t>(count);
    return std::fwrite(bytes, 1, size, static_cast<std::FILE*>(file)) == size ? count : -1;
}

xmlTextWriter* makeWriter(std::FILE* file) {
    if (file == nullptr) {
        fail();
    }
    xmlOutputBuffer* const buffer = xmlOutputBufferCreateIO(&writeInto, nullptr, file, nullptr);
    xmlTextWriter* const writer = buffer == nullptr ? nullptr : xmlNewTextWriter(buffer);
    if (writer == nullptr) {
        xmlOutputBufferClose(buffer);
        errno = ENOMEM;
        fail();
    }
    return writer;
}

} // namespace

struct XmlSpool::Writer {
    explicit Writer(std::FILE* file) : handle(makeWriter(file), &xmlFreeTextWriter) {}

    std::unique_ptr<xmlTextWriter, void (*)(xmlTextWriter*)> handle;
};

XmlSpool::XmlSpool() : file_(std::tmpfile(), &std::fclose), writer_(std::make_unique<Writer>(file_.get())) {
    require(xmlTextWriterSetIndent(writer_->handle.get(), 1));
    require(xmlTextWriterStartDocument(writer_->handle.get(), "1.0", "UTF-8", nullptr));
}

XmlSpool::~XmlSpool() = default;

void XmlSpool::begin(char const* name, Attribute const& attribute) {
    require(xmlTextWriterStartElement(writer_->handle.get(), xml(name)));
    if (!attribute.name.empty()) {
        require(xmlTextWriterWriteAttribute(writer_->handle.get(), xml(attribute.name.c_str()),
                                            xml(attribute.value.c_str())));
    }
}

void XmlSpool::element(char const* name, std::string const& text, Attribute const& attribute) {
    begin(name, attribute);
    require(xmlTextWriterWriteString(writer_->handle.get(), xml(text.c_str())));
    require(xmlTextWriterEndElement(writer_->handle.get()));
}

void XmlSpool::finish() {
    require(xmlTextWriterEndDocument(writer_->handle.get()));
    require(xmlTextWriterFlush(writer_->handle.get()));
    if (std::fflush(file_.get()) != 0) {
        fail();
    }
}

void XmlSpool::read(std::function<void(std::string_view)> const& sink) {
    std::rewind(file_.get());
    std::vector<char> piece(kPieceBytes);
    std::size_t count = 0;
    do {
        count = std::fread(piece.data(), 1, piece.size(), file_.get());
        if (count != 0) {
            sink({piece.data(), count});
        }
    } while (count == piece.size());
    if (std::ferror(file_.get()) != 0) {
        fail();
    }
}

} // namespace imaging
