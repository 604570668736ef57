<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="en">
<context>
    <name></name>
    <message id="ErrorCannotOpenForWrite">
        <source>ErrorCannotOpenForWrite</source>
        <translation>The file cannot be opened for writing, or its present tags cannot be read.</translation>
    </message>
    <message id="ErrorCannotMakeID3">
        <source>ErrorCannotMakeID3</source>
        <translation>The new tag could not be made.</translation>
    </message>
</context>
</TS>
