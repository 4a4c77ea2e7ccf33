#include "core/io/ZnAbstractSocket.h"

void ZnAbstractSocket::connected() {
    emitSignal(&ZnAbstractSocket::connected);
}
void ZnAbstractSocket::disconnected() {
    emitSignal(&ZnAbstractSocket::disconnected);
}
void ZnAbstractSocket::writeFinished() {
    emitSignal(&ZnAbstractSocket::writeFinished);
}
void ZnAbstractSocket::errorOccurred(int code) {
    emitSignal(&ZnAbstractSocket::errorOccurred, code);
}
