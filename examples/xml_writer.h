#ifndef KVUTIL_EXAMPLES_XML_WRITER_H
#define KVUTIL_EXAMPLES_XML_WRITER_H

#include <kvutil/xmltag.h>

#include <string>
#include <vector>

/// What a text must look like between two tags. U+FFFD stands for every character that XML 1.0
/// cannot carry: most controls, U+FFFE, U+FFFF and halves of surrogate pairs.
/// @param text  any units
/// @return      character data, well-formed UTF-16
/// @see Extensible Markup Language (XML) 1.0, 2.2 and 2.4
Kvl::UString xml_text(const Kvl::UString& text);

/// What a text must look like as the value of an attribute in double quotes.
/// @param text  any units
/// @return      as xml_text(), with quotes and white space that a reader would change written as
///              references
/// @see Extensible Markup Language (XML) 1.0, 3.3.3
Kvl::UString xml_attribute(const Kvl::UString& text);

/// Collects elements as indented UTF-8 text, one per line. A name is written under the abbreviation
/// of its namespace, which the document's root declares once for all.
/// Every operation throws `IllegalArgException` PLXSV0654E for a tag whose namespace is not one of
/// the well-known ones: it has no abbreviation.
class XmlWriter {
public:
    /// @param depth  how many elements are open around the first one
    explicit XmlWriter(unsigned int depth = 0) : depth_(depth) {}

    /// The first line of a document and its outermost element.
    /// @param root        the outermost element, to be closed with end()
    /// @param namespaces  every namespace that the document uses, that of `root` too
    void start_document(const Kvl::XmlTag& root, const std::vector<Kvl::XmlTag::NsId>& namespaces);

    void start(const Kvl::XmlTag& tag);
    void end(const Kvl::XmlTag& tag);

    /// An element that holds a text only.
    /// @param tag   its name
    /// @param text  any units; they are escaped here
    void element(const Kvl::XmlTag& tag, const Kvl::UString& text);

    /// @return  everything written so far, in UTF-8
    const std::string& text() const { return text_; }

private:
    void line(const Kvl::UString& markup);

    unsigned int depth_;
    std::string text_;
};

#endif
