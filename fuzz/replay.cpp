// The suite's stand-in for libFuzzer: feeds every file of the folders (or the
// files) it is given to the target once, in name order, so a corpus is
// replayed by whatever compiler and sanitizers the build uses.
#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cstdint>
#include <cstdio>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
    QStringList files;
    for (int i = 1; i < argc; ++i) {
        const QString path = QFile::decodeName(argv[i]);
        if (QFileInfo(path).isDir()) {
            for (const QString& name :
                 QDir(path).entryList(QDir::Files | QDir::Hidden, QDir::Name)) {
                files << QDir(path).filePath(name);
            }
        } else {
            files << path;
        }
    }
    for (const QString& path : files) {
        QFile file(path);
        if (!file.open(QIODevice::ReadOnly)) {
            std::fprintf(stderr, "cannot read %s\n", qPrintable(path));
            return 1;
        }
        const QByteArray input = file.readAll();
        // A copy of exactly the input's length, so reading past it is caught.
        std::vector<std::uint8_t> exact(input.begin(), input.end());
        LLVMFuzzerTestOneInput(exact.data(), exact.size());
    }
    std::printf("%lld inputs replayed\n", static_cast<long long>(files.size()));
    // An empty corpus would prove nothing.
    return files.isEmpty() ? 1 : 0;
}
