#include <QCoreApplication>
#include <cstdio>

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    std::puts("lumerix: not wired up yet");
    return 0;
}
