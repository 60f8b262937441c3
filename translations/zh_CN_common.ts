<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="zh_CN" sourcelanguage="en">
<context>
    <name>WireTextCodec</name>
    <message>
        <source>The character &apos;%1&apos; cannot be encoded as %2. Change the encoding or edit the message.</source>
        <translation>字符“%1”无法用 %2 编码。请更换编码或修改消息。</translation>
    </message>
    <message>
        <source>This message cannot be encoded as %1. Change the encoding or edit the message.</source>
        <translation>此消息无法用 %1 编码。请更换编码或修改消息。</translation>
    </message>
</context>
<context>
    <name>WireTextCodecRegistry</name>
    <message>
        <source>The text encoding &quot;%1&quot; is not available on this system.</source>
        <translation>本系统不支持文本编码“%1”。</translation>
    </message>
</context>
</TS>
