#pragma once

#include <QList>
#include <QString>

class QEvent;
class QLabel;
class QObject;
class QWidget;

/**
 * What the two on-screen keyboards share: their keys by group, the shuffle,
 * the key faces, the scaling, the mouse rule, the reaction to a key and the
 * handling of the physical keyboard (focus, arrows, Space). Not a QObject:
 * the owning keyboard keeps its signals and emits what press() reports.
 */
class KeyboardKeys
{
public:
    /// What a key does when it is pressed.
    enum Action { NoAction, Character, Shift, Backspace };

    /// One shuffled group: its keys' object name prefix and index width, its
    /// order array and its two maps (one entry per key); the keys are found.
    struct Group
    {
        const char *prefix;
        int width;
        int *order;
        const QString *normal;
        const QString *shifted;
        QList<QLabel *> keys = {};
    };

    KeyboardKeys(QWidget *board, const char *context, const QList<Group> &groups);

    QList<QLabel *> keys() const;
    void shuffle();
    void refresh(bool shifted);
    void scale(float factor);
    Action press(QObject *key, char *character) const;
    bool filter(QObject *watched, QEvent *event, QObject **pressed);

private:
    QLabel *neighbour(const QLabel *from, int qtKey) const;
    void leave(bool forward);

    QWidget *board;
    QList<Group> groups;
    QLabel *backspaceKey;
    QLabel *shiftKey;
    QLabel *spaceKey;
    QLabel *current = nullptr;
    int frameWidth = 2;
};
