#pragma once
// Collects what goes through Qt's message handler while it lives.

#include <QList>
#include <QPair>
#include <QString>
#include <QtGlobal>

struct MessageCapture {
  MessageCapture() {
    current() = this;
    previous = qInstallMessageHandler(&MessageCapture::Handle);
  }
  ~MessageCapture() {
    qInstallMessageHandler(previous);
    current() = nullptr;
  }
  MessageCapture(const MessageCapture&) = delete;
  MessageCapture& operator=(const MessageCapture&) = delete;

  QList<QPair<QtMsgType, QString>> lines;

 private:
  static MessageCapture*& current() {
    static MessageCapture* c = nullptr;
    return c;
  }
  static void Handle(QtMsgType type, const QMessageLogContext&, const QString& msg) {
    if (current() != nullptr) current()->lines.append({type, msg});
  }
  QtMessageHandler previous = nullptr;
};
