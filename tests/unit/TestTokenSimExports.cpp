// The stand-in token libraries export exactly the entry points the program
// binds (read from the ELF dynamic symbol table), bind through dlsym in the
// loaders' order, and answer "not supported" from every entry point the
// program never calls.

#include "app/TokenLibs.h"

#include <QFile>
#include <QStringList>
#include <QtTest>

#include <dlfcn.h>
#include <elf.h>

namespace {

#define ZRUI_TEST_NAME(name) QStringLiteral(#name),
const QStringList kZrkapiNames = {ZRUI_ZRKAPI_ENTRY_POINTS(ZRUI_TEST_NAME)};
const QStringList kZralgNames = {ZRUI_ZRALG_ENTRY_POINTS(ZRUI_TEST_NAME)};
const QStringList kAuxNames = {ZRUI_AUX_ENTRY_POINTS(ZRUI_TEST_NAME)};
const QStringList kCalledNames = {ZRUI_CALLED_ENTRY_POINT_TYPES(ZRUI_TEST_NAME)};
#undef ZRUI_TEST_NAME

constexpr long kNotSupported = 0x0A000005;

QString tokenDir() { return qEnvironmentVariable("ZRUI_TOKENSIM_DIR"); }

QString variantDir() { return qEnvironmentVariable("ZRUI_TOKENSIM_VARIANT_DIR"); }

struct DynSymbol
{
    QString name;
    unsigned type;
    unsigned binding;
};

// Defined symbols of the dynamic symbol table (.dynsym) of a 64-bit ELF
// shared object; false with a reason when the file cannot be read as one.
bool readDynamicSymbols(const QString &path, QList<DynSymbol> *out, QString *why)
{
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly)) {
        *why = f.errorString();
        return false;
    }
    const QByteArray image = f.readAll();
    const char *base = image.constData();
    const auto size = static_cast<size_t>(image.size());
    if (size < sizeof(Elf64_Ehdr) || memcmp(base, ELFMAG, SELFMAG) != 0
        || base[EI_CLASS] != ELFCLASS64) {
        *why = QStringLiteral("not a 64-bit ELF file");
        return false;
    }
    Elf64_Ehdr eh;
    memcpy(&eh, base, sizeof eh);
    if (eh.e_shentsize != sizeof(Elf64_Shdr)
        || eh.e_shoff + eh.e_shnum * sizeof(Elf64_Shdr) > size) {
        *why = QStringLiteral("bad section table");
        return false;
    }
    auto section = [&](size_t i) {
        Elf64_Shdr sh;
        memcpy(&sh, base + eh.e_shoff + i * sizeof sh, sizeof sh);
        return sh;
    };
    for (size_t i = 0; i < eh.e_shnum; ++i) {
        const Elf64_Shdr sh = section(i);
        if (sh.sh_type != SHT_DYNSYM)
            continue;
        const Elf64_Shdr strtab = section(sh.sh_link);
        if (sh.sh_offset + sh.sh_size > size || strtab.sh_offset + strtab.sh_size > size) {
            *why = QStringLiteral("bad .dynsym");
            return false;
        }
        for (size_t off = 0; off + sizeof(Elf64_Sym) <= sh.sh_size; off += sizeof(Elf64_Sym)) {
            Elf64_Sym sym;
            memcpy(&sym, base + sh.sh_offset + off, sizeof sym);
            if (sym.st_shndx == SHN_UNDEF || sym.st_name == 0 || sym.st_name >= strtab.sh_size)
                continue;
            out->append({QString::fromLatin1(base + strtab.sh_offset + sym.st_name),
                         ELF64_ST_TYPE(sym.st_info), ELF64_ST_BIND(sym.st_info)});
        }
        return true;
    }
    *why = QStringLiteral("no .dynsym");
    return false;
}

QStringList without(QStringList list, const QString &name)
{
    list.removeAll(name);
    return list;
}

} // namespace

class TestTokenSimExports : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void testEntryPointLists();
    void testExports_data();
    void testExports();
    void testBindingOrder_data();
    void testBindingOrder();
    void testUncalledEntryPoints_data();
    void testUncalledEntryPoints();
};

void TestTokenSimExports::initTestCase()
{
    QVERIFY2(tokenDir().endsWith('/'), qPrintable(tokenDir()));
    QVERIFY2(!variantDir().isEmpty(), "ZRUI_TOKENSIM_VARIANT_DIR is not set");
}

// The lists this test compares against come from the program's own header;
// guard against them shrinking unnoticed (which would shrink the test).
void TestTokenSimExports::testEntryPointLists()
{
    QCOMPARE(kZrkapiNames.size(), 26);
    QCOMPARE(kZralgNames.size(), 34);
    QCOMPARE(kAuxNames.size(), 6);
    QCOMPARE(kZralgNames.last(), QStringLiteral("ZRA_DecodeX509Cert"));
    QCOMPARE(kCalledNames.size(), 8);
}

void TestTokenSimExports::testExports_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QStringList>("expected");
    QTest::newRow("libzrkapi") << tokenDir() + "libzrkapi.so" << kZrkapiNames;
    QTest::newRow("libzralg") << tokenDir() + "libzralg.so" << kZralgNames;
    QTest::newRow("libaux") << tokenDir() + "libaux.so" << kAuxNames;
    QTest::newRow("variant libzrkapi") << variantDir() + "/libzrkapi.so" << kZrkapiNames;
    QTest::newRow("variant libzralg")
            << variantDir() + "/libzralg.so" << without(kZralgNames, "ZRA_DecodeX509Cert");
    QTest::newRow("variant libaux") << variantDir() + "/libaux.so" << kAuxNames;
}

void TestTokenSimExports::testExports()
{
    QFETCH(QString, path);
    QFETCH(QStringList, expected);
    QList<DynSymbol> symbols;
    QString why;
    QVERIFY2(readDynamicSymbols(path, &symbols, &why), qPrintable(path + ": " + why));

    QStringList names;
    for (const DynSymbol &s : symbols) {
        QVERIFY2(s.type == STT_FUNC && s.binding == STB_GLOBAL,
                 qPrintable(s.name + " is not a global function"));
        names.append(s.name);
    }
    names.sort();
    expected.sort();
    QCOMPARE(names, expected);
}

void TestTokenSimExports::testBindingOrder_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<int>("mode");
    QTest::addColumn<QStringList>("names");
    QTest::addColumn<QString>("firstMissing");
    QTest::newRow("libzrkapi") << tokenDir() + "libzrkapi.so" << RTLD_LAZY << kZrkapiNames
                               << QString();
    QTest::newRow("libzralg") << tokenDir() + "libzralg.so" << (RTLD_LAZY | RTLD_DEEPBIND)
                              << kZralgNames << QString();
    QTest::newRow("libaux") << tokenDir() + "libaux.so" << RTLD_LAZY << kAuxNames << QString();
    QTest::newRow("variant libzralg")
            << variantDir() + "/libzralg.so" << (RTLD_LAZY | RTLD_DEEPBIND) << kZralgNames
            << QStringLiteral("ZRA_DecodeX509Cert");
}

// Binds the way the program's loaders do: in list order, stopping at the
// first name that is missing.
void TestTokenSimExports::testBindingOrder()
{
    QFETCH(QString, path);
    QFETCH(int, mode);
    QFETCH(QStringList, names);
    QFETCH(QString, firstMissing);
    void *h = dlopen(QFile::encodeName(path).constData(), mode);
    QVERIFY2(h, dlerror());
    QString missing;
    for (const QString &name : names) {
        if (!dlsym(h, name.toLatin1().constData())) {
            missing = name;
            break;
        }
    }
    dlclose(h);
    QCOMPARE(missing, firstMissing);
}

void TestTokenSimExports::testUncalledEntryPoints_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("name");
    const QList<QPair<QString, QStringList>> libs = {
            {"libzrkapi.so", kZrkapiNames}, {"libzralg.so", kZralgNames}, {"libaux.so", kAuxNames}};
    for (const auto &lib : libs) {
        for (const QString &name : lib.second) {
            if (!kCalledNames.contains(name))
                QTest::newRow(qPrintable(name)) << tokenDir() + lib.first << name;
        }
    }
}

void TestTokenSimExports::testUncalledEntryPoints()
{
    QFETCH(QString, path);
    QFETCH(QString, name);
    void *h = dlopen(QFile::encodeName(path).constData(), RTLD_LAZY);
    QVERIFY2(h, dlerror());
    auto fn = reinterpret_cast<PFN_ZR_Unused>(dlsym(h, name.toLatin1().constData()));
    const long rc = fn ? fn() : 0;
    dlclose(h);
    QVERIFY(fn);
    QCOMPARE(rc, kNotSupported);
}

QTEST_APPLESS_MAIN(TestTokenSimExports)
#include "TestTokenSimExports.moc"
