<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="zh_CN" sourcelanguage="en">
<context>
    <name>CloudAccountMenu</name>
    <message>
        <source>The cloud settings come from an incompatible version and were not applied.</source>
        <translation>云端设置来自不兼容的版本，未予应用。</translation>
    </message>
    <message>
        <source>Sign in has expired.</source>
        <translation>登录已过期。</translation>
    </message>
    <message>
        <source>Signed in at %1
%2</source>
        <translation>已登录到 %1
%2</translation>
    </message>
    <message>
        <source>Cloud server: %1</source>
        <translation>云服务器：%1</translation>
    </message>
    <message>
        <source>Signed in as %1</source>
        <translation>已登录为 %1</translation>
    </message>
    <message>
        <source>Use Cloud</source>
        <translation>使用云端</translation>
    </message>
    <message>
        <source>Keep Local</source>
        <translation>保留本地</translation>
    </message>
    <message>
        <source>Merge Lists</source>
        <translation>合并列表</translation>
    </message>
</context>
<context>
    <name>CloudConsoleMenu</name>
    <message>
        <source>Being watched</source>
        <translation>正在被查看</translation>
    </message>
    <message>
        <source>Live Console · somebody is watching now</source>
        <translation>实时控制台 · 现在有人正在查看</translation>
    </message>
    <message>
        <source>Cloud &gt; Live Console to stop</source>
        <translation>云 &gt; 实时控制台 可停止</translation>
    </message>
    <message>
        <source>Live Console starts once you sign in.</source>
        <translation>登录后实时控制台即会启动。</translation>
    </message>
</context>
<context>
    <name>CommandLine</name>
    <message>
        <source>A terminal for serial ports and networks.</source>
        <translation>串口与网络终端。</translation>
    </message>
    <message>
        <source>Show this help and quit.</source>
        <translation>显示本帮助并退出。</translation>
    </message>
    <message>
        <source>Show the version and quit.</source>
        <translation>显示版本并退出。</translation>
    </message>
    <message>
        <source>Save a picture of the main window to &lt;file&gt; and quit.</source>
        <translation>将主窗口的图片保存到 &lt;file&gt; 后退出。</translation>
    </message>
    <message>
        <source>Save a picture of the dialog &lt;name&gt; to the file that follows, at the size WIDTHxHEIGHT when that follows too, and quit.</source>
        <translation>将对话框 &lt;name&gt; 的图片保存到其后给出的文件；若再给出 WIDTHxHEIGHT，则按该尺寸保存；然后退出。</translation>
    </message>
    <message>
        <source>A serial port to open, or a project file (*.tsl) to open.</source>
        <translation>要打开的串口，或要打开的工程文件 (*.tsl)。</translation>
    </message>
</context>
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
    <message>
        <source>Untitled</source>
        <translation>未命名</translation>
    </message>
    <message>
        <source>Opened %1</source>
        <translation>已打开 %1</translation>
    </message>
    <message>
        <source>Saving...</source>
        <translation>正在保存...</translation>
    </message>
    <message>
        <source>Saved %1</source>
        <translation>已保存 %1</translation>
    </message>
    <message>
        <source>The document has been modified.
Do you want to save your changes?</source>
        <translation>文档已被修改。
是否保存更改？</translation>
    </message>
    <message>
        <source>Save Tessaline</source>
        <translation>保存 Tessaline</translation>
    </message>
    <message>
        <source>Tessaline files (*.tsl)</source>
        <translation>Tessaline 文件 (*.tsl)</translation>
    </message>
    <message>
        <source>Open Settings</source>
        <translation>打开设置</translation>
    </message>
    <message>
        <source>Save Path</source>
        <translation>保存路径</translation>
    </message>
    <message>
        <source>Settings files are saved in %1</source>
        <translation>设置文件保存在 %1</translation>
    </message>
    <message>
        <source>No data log is being recorded.</source>
        <translation>当前没有正在记录的数据日志。</translation>
    </message>
    <message>
        <source>Cannot open %1</source>
        <translation>无法打开 %1</translation>
    </message>
    <message>
        <source>The last port cannot be removed.</source>
        <translation>不能移除最后一个端口。</translation>
    </message>
    <message>
        <source>Set Port Number Per Column</source>
        <translation>设置每列端口数</translation>
    </message>
    <message>
        <source>Port Number Per Column:</source>
        <translation>每列端口数：</translation>
    </message>
    <message>
        <source>About Tessaline</source>
        <translation>关于 Tessaline</translation>
    </message>
    <message>
        <source>Tessaline %1
A terminal for serial ports and networks.</source>
        <translation>Tessaline %1
用于串口和网络的终端。</translation>
    </message>
    <message>
        <source>Default settings restored.</source>
        <translation>已恢复默认设置。</translation>
    </message>
    <message>
        <source>A file transfer is running. Closing stops it, and the device may be left with an incomplete file.
Close anyway?</source>
        <translation>文件传输正在进行。关闭会停止传输，设备上可能留下不完整的文件。
仍要关闭吗？</translation>
    </message>
</context>
<context>
    <name>NewConnectionDialog</name>
    <message>
        <source>New Connection</source>
        <translation>新建连接</translation>
    </message>
    <message>
        <source>Serial Port</source>
        <translation>串口</translation>
    </message>
    <message>
        <source>TCP/IP</source>
        <translation>TCP/IP</translation>
    </message>
</context>
<context>
    <name>ProjectFile</name>
    <message>
        <source>Cannot save %1: %2</source>
        <translation>无法保存 %1：%2</translation>
    </message>
    <message>
        <source>Cannot save %1: the settings could not be written.</source>
        <translation>无法保存 %1：设置无法写入。</translation>
    </message>
    <message>
        <source>Cannot save %1: the disk is full or the file could not be written.</source>
        <translation>无法保存 %1：磁盘已满或文件无法写入。</translation>
    </message>
    <message>
        <source>File not found: %1</source>
        <translation>找不到文件：%1</translation>
    </message>
    <message>
        <source>Cannot read %1.</source>
        <translation>无法读取 %1。</translation>
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
