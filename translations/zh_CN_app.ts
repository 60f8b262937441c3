<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="zh_CN" sourcelanguage="en">
<context>
    <name>MainWindow</name>
    <message>
        <source>Tessaline</source>
        <translation>Tessaline</translation>
    </message>
    <message>
        <source>The changes will take effect when the program is restarted.</source>
        <translation>更改将在程序重新启动后生效。</translation>
    </message>
    <message>
        <source>Serial Port %1 OPEN FAILED</source>
        <translation>串口 %1 打开失败</translation>
    </message>
</context>
<context>
    <name>SetConfigFilePathDialog</name>
    <message>
        <source>Choose a folder for the configuration files.</source>
        <translation>请为配置文件选择一个文件夹。</translation>
    </message>
    <message>
        <source>%1 is a file, not a folder.</source>
        <translation>%1 是一个文件，而不是文件夹。</translation>
    </message>
    <message>
        <source>Could not create the folder %1.</source>
        <translation>无法创建文件夹 %1。</translation>
    </message>
    <message>
        <source>Configuration Folder</source>
        <translation>配置文件夹</translation>
    </message>
</context>
</TS>
