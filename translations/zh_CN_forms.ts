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
        <source>&amp;File</source>
        <translation>文件(&amp;F)</translation>
    </message>
    <message>
        <source>&amp;View</source>
        <translation>视图(&amp;V)</translation>
    </message>
    <message>
        <source>Language</source>
        <translation>语言</translation>
    </message>
    <message>
        <source>Main Toolbar</source>
        <translation>主工具栏</translation>
    </message>
    <message>
        <source>Exit</source>
        <translation>退出</translation>
    </message>
    <message>
        <source>Ctrl+Q</source>
        <translation>Ctrl+Q</translation>
    </message>
    <message>
        <source>English</source>
        <translation>English</translation>
    </message>
    <message>
        <source>Chinese</source>
        <translation>简体中文</translation>
    </message>
    <message>
        <source>&amp;Connection</source>
        <translation>连接(&amp;C)</translation>
    </message>
    <message>
        <source>Start</source>
        <translation>开始</translation>
    </message>
    <message>
        <source>Stop</source>
        <translation>停止</translation>
    </message>
    <message>
        <source>Auto Restore Last Connection</source>
        <translation>自动恢复上次连接</translation>
    </message>
    <message>
        <source>Restore the connection that was open at last exit</source>
        <translation>恢复上次退出时处于打开状态的连接</translation>
    </message>
    <message>
        <source>Auto Reconnect</source>
        <translation>自动重连</translation>
    </message>
    <message>
        <source>Automatically reconnect after a serial unplug or TCP connection loss</source>
        <translation>串口拔出或 TCP 连接断开后自动重新连接</translation>
    </message>
    <message>
        <source>Clear All Displays</source>
        <translation>清除所有显示</translation>
    </message>
    <message>
        <source>Ctrl+L</source>
        <translation>Ctrl+L</translation>
    </message>
    <message>
        <source>Pause</source>
        <translation>暂停</translation>
    </message>
    <message>
        <source>Clear All Send Histories</source>
        <translation>清除所有发送历史</translation>
    </message>
    <message>
        <source>&amp;Tools</source>
        <translation>工具(&amp;T)</translation>
    </message>
    <message>
        <source>Toolbox...</source>
        <translation>工具箱...</translation>
    </message>
    <message>
        <source>ASCII Code...</source>
        <translation>ASCII 码表...</translation>
    </message>
    <message>
        <source>Modbus Request Builder...</source>
        <translation>Modbus 请求生成器...</translation>
    </message>
    <message>
        <source>Recent Files</source>
        <translation>最近的文件</translation>
    </message>
    <message>
        <source>&amp;Help</source>
        <translation>帮助(&amp;H)</translation>
    </message>
    <message>
        <source>&amp;Debug</source>
        <translation>调试(&amp;D)</translation>
    </message>
    <message>
        <source>New...</source>
        <translation>新建...</translation>
    </message>
    <message>
        <source>Open Settings...</source>
        <translation>打开设置...</translation>
    </message>
    <message>
        <source>Save Settings...</source>
        <translation>保存设置...</translation>
    </message>
    <message>
        <source>Save current config</source>
        <translation>保存当前配置</translation>
    </message>
    <message>
        <source>Ctrl+S</source>
        <translation>Ctrl+S</translation>
    </message>
    <message>
        <source>Save Settings As...</source>
        <translation>设置另存为...</translation>
    </message>
    <message>
        <source>Save current settings as new file</source>
        <translation>将当前设置保存为新文件</translation>
    </message>
    <message>
        <source>Save Path...</source>
        <translation>保存路径...</translation>
    </message>
    <message>
        <source>Log Recording</source>
        <translation>日志记录</translation>
    </message>
    <message>
        <source>Record all port messages as log files</source>
        <translation>将所有端口的消息记录为日志文件</translation>
    </message>
    <message>
        <source>View Current Data Log</source>
        <translation>查看当前数据日志</translation>
    </message>
    <message>
        <source>Open Log Folder</source>
        <translation>打开日志文件夹</translation>
    </message>
    <message>
        <source>New Connection</source>
        <translation>新建连接</translation>
    </message>
    <message>
        <source>Add Port</source>
        <translation>添加端口</translation>
    </message>
    <message>
        <source>Remove Port</source>
        <translation>移除端口</translation>
    </message>
    <message>
        <source>Horizontal</source>
        <translation>水平</translation>
    </message>
    <message>
        <source>Vertical</source>
        <translation>垂直</translation>
    </message>
    <message>
        <source>Grid</source>
        <translation>网格</translation>
    </message>
    <message>
        <source>Custom</source>
        <translation>自定义</translation>
    </message>
    <message>
        <source>Port Number Per Column...</source>
        <translation>每列端口数...</translation>
    </message>
    <message>
        <source>Always On Top</source>
        <translation>窗口置顶</translation>
    </message>
    <message>
        <source>Settings...</source>
        <translation>设置...</translation>
    </message>
    <message>
        <source>About</source>
        <translation>关于</translation>
    </message>
    <message>
        <source>Homepage</source>
        <translation>主页</translation>
    </message>
    <message>
        <source>Help</source>
        <translation>帮助</translation>
    </message>
    <message>
        <source>Resize for App Store</source>
        <translation>调整为应用商店尺寸</translation>
    </message>
    <message>
        <source>Close Quick Settings</source>
        <translation>关闭快速设置</translation>
    </message>
    <message>
        <source>Quick Settings...</source>
        <translation>快速设置...</translation>
    </message>
    <message>
        <source>Choose the groups and fields the panes show</source>
        <translation>选择端口面板显示的分组和字段</translation>
    </message>
    <message>
        <source>Send File...</source>
        <translation>发送文件...</translation>
    </message>
    <message>
        <source>Send a file to the device with XMODEM or YMODEM</source>
        <translation>用 XMODEM 或 YMODEM 向设备发送文件</translation>
    </message>
    <message>
        <source>Ctrl+Shift+S</source>
        <translation>Ctrl+Shift+S</translation>
    </message>
    <message>
        <source>Receive File...</source>
        <translation>接收文件...</translation>
    </message>
    <message>
        <source>Receive a file from the device with XMODEM or YMODEM</source>
        <translation>用 XMODEM 或 YMODEM 从设备接收文件</translation>
    </message>
    <message>
        <source>Ctrl+Shift+R</source>
        <translation>Ctrl+Shift+R</translation>
    </message>
    <message>
        <source>Cancel Transfer</source>
        <translation>取消传输</translation>
    </message>
    <message>
        <source>Cl&amp;oud</source>
        <translation>云(&amp;O)</translation>
    </message>
    <message>
        <source>Sign In...</source>
        <translation>登录...</translation>
    </message>
    <message>
        <source>My Account</source>
        <translation>我的账户</translation>
    </message>
    <message>
        <source>Sync Now</source>
        <translation>立即同步</translation>
    </message>
    <message>
        <source>Sync Settings...</source>
        <translation>同步设置...</translation>
    </message>
    <message>
        <source>Sign Out</source>
        <translation>退出登录</translation>
    </message>
    <message>
        <source>Live Console</source>
        <translation>实时控制台</translation>
    </message>
    <message>
        <source>Let a browser signed in to your account watch and drive this computer&apos;s ports</source>
        <translation>让登录了您账户的浏览器查看并操作这台电脑的端口</translation>
    </message>
    <message>
        <source>Allow Remote Send</source>
        <translation>允许远程发送</translation>
    </message>
    <message>
        <source>Watchers may send data to the ports</source>
        <translation>查看者可以向端口发送数据</translation>
    </message>
    <message>
        <source>Allow Remote Port Control</source>
        <translation>允许远程控制端口</translation>
    </message>
    <message>
        <source>Watchers may open and close the ports and change their serial parameters</source>
        <translation>查看者可以打开和关闭端口并更改其串口参数</translation>
    </message>
</context>
<context>
    <name>SetConfigFilePathDialog</name>
    <message>
        <source>Tessaline</source>
        <translation>Tessaline</translation>
    </message>
    <message>
        <source>Choose the folder where Tessaline keeps your configuration files (projects and quick settings).</source>
        <translation>请选择 Tessaline 保存配置文件（工程文件和快捷设置）的文件夹。</translation>
    </message>
    <message>
        <source>Browse...</source>
        <translation>浏览...</translation>
    </message>
</context>
</TS>
