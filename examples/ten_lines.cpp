#include <iostream>
#include <kvutil/kvutil.h>

int main()
{
    std::cout << Kvl::Selector(u"vd.file:/src/main.c@/vobs/proj").name().utf8_str() << '\n';
    try {
        const Kvl::Selector selector(u"vd.file");
    } catch (const Kvl::STPException& e) {
        std::cout << e.message().message_string().utf8_str() << '\n';
    }
}
